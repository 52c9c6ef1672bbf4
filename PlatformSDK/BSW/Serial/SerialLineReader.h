/// Finds the frames of the legacy portable parts in a stream of bytes, which comes in chunks that know
/// nothing of frames. SerialPrase feeds it from its line. It judges only head and length; the check byte is
/// SerialPrase's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

/// Bytes of a frame beside its payload: tag, type, length and check byte.
constexpr uint16_t kSerialPraseOverhead = 6;

/// Used by one thread.
class SerialLineReader {
 public:
  /// Puts at most `length` bytes into `buffer` and gives their number; 0 or less when there are none now.
  using Refill = std::function<int(char* buffer, int length)>;

  /// `chunkSize` is the most that one refill is asked for.
  explicit SerialLineReader(size_t chunkSize);

  /// Drops what was refilled and not yet read.
  void Reset() { m_lpBufPtr = m_lpBufEnd; }

  /// Reads the next frame into `frame`, which has room for `maxPayload` + 6 bytes, and gives its length.
  /// Noise before the frame is dropped, and so is a head whose payload would be longer than `maxPayload`. -1
  /// when a refill brought nothing; the part of a frame that was read until then is dropped.
  int32_t GetLine(uint8_t* frame, uint16_t maxPayload, const Refill& refill);

 private:
  /// The next byte, or -1.
  int _GetChar(const Refill& refill);
  /// Reads `count` bytes of a frame that has begun.
  bool _ReadBytes(uint8_t* bytes, size_t count, const Refill& refill);

  std::vector<char> m_lpBuf;
  const char* m_lpBufPtr;  ///< next unread byte in m_lpBuf
  const char* m_lpBufEnd;  ///< end of the valid bytes in m_lpBuf
};
