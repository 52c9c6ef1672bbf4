/// Sends an image by XMODEM-1K with CRC, as the XMODEM/YMODEM Protocol Reference (C. Forsberg) describes it.
/// Knows neither threads nor ports: whoever has a boot loader of this kind on a line gives it that line.
///
/// The story: the receiver calls with 'C' about once a second until the first block comes. A block is
///
///   STX | number 1 (from 1; wraps) | 255 - number | data 1024 | CRC-16/XMODEM of the data 2, high byte first
///
/// the last one filled up with 0x1A. ACK brings the next block; NAK, or no answer for a second, the same one
/// again, ten times at most. After the last block EOT is sent in the same way, and ACK ends the transfer:
/// some receivers answer the first EOT with NAK, to hear it twice. Two CANs in a row, or a CAN and then
/// silence, are the receiver's refusal; we give up by sending CANs. Everything else that comes in is noise.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "BSW/Serial/IXmodemLine.h"

class XmodemSender {
 public:
  enum class Result {
    Done,
    NoCall,     ///< no 'C' came
    NoAnswer,   ///< a block or EOT stayed without an answer, ten times
    Refused,    ///< a block or EOT was answered with NAK up to the tenth time
    Cancelled,  ///< the receiver gave up
    LineDown,   ///< the line did not take what was sent
    Stopped,
  };

  static constexpr size_t kBlockBytes = 1024;
  static constexpr int kMaxTries = 10;
  static constexpr std::chrono::seconds kCallTime{10};
  static constexpr std::chrono::seconds kAnswerTime{1};
  /// A line without a byte for so long has none on its way: many times a byte's 87 us at 115200 baud.
  static constexpr std::chrono::milliseconds kQuietTime{100};

  /// Told after each block how many of `total` are acknowledged.
  using Progress = std::function<void(size_t done, size_t total)>;

  /// The line outlives the sender.
  explicit XmodemSender(IXmodemLine& line) : m_line(line) {}

  /// Runs one whole transfer of an image that is not empty, on the calling thread.
  Result Send(const std::string& image, const Progress& progress);

  /// A few words for people.
  static const char* Text(Result result);

 private:
  using Bytes = std::vector<uint8_t>;

  Result _SendBlocks(const std::string& image, const Progress& progress);
  /// Sends `frame` until it is acknowledged.
  Result _SendUntilAck(const Bytes& frame);
  /// Takes what is on its way until the line is quiet; bounded by kAnswerTime.
  void _WaitForSilence();
  /// Waits at most `time` for one of the bytes `wanted`, past all noise. It, CAN when the receiver gives up,
  /// or what the line's Receive gave.
  int _Await(std::string_view wanted, std::chrono::milliseconds time);
  static Bytes _Block(const std::string& image, size_t index);

  IXmodemLine& m_line;
};
