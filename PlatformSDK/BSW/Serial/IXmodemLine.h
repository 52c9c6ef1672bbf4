/// The line that an XMODEM transfer runs over, as XmodemSender needs it; owners of a port implement it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// Used by one thread.
class IXmodemLine {
 public:
  /// What Receive gives instead of a byte.
  static constexpr int kSilence = -1;  ///< nothing came in time
  static constexpr int kStopped = -2;  ///< whoever waits is to give up

  virtual ~IXmodemLine() = default;

  /// The next received byte, 0 to 255, waiting at most `time` for it.
  virtual int Receive(std::chrono::milliseconds time) = 0;
  /// Forgets what was received and not read.
  virtual void Purge() = 0;
  /// Sends all of it; false when the line does not take it.
  virtual bool Send(const uint8_t* data, size_t size) = 0;

 protected:
  IXmodemLine() = default;
  IXmodemLine(const IXmodemLine&) = default;
  IXmodemLine& operator=(const IXmodemLine&) = default;
};
