/// Cuts a run of received bytes into MCU frames. SerialProtocolMng makes one for every pass over its receive
/// queue. The cost grows with the number of bytes, whatever they are.
#pragma once

#include <cstddef>
#include <cstdint>

/// Used by one thread. Keeps no copy: the bytes must outlive it.
class McuFrameParser {
 public:
  /// Where the scan stands: it looks for a head, has one but not yet the length, or waits for the rest of a
  /// frame.
  enum ParseState { EM_PARSE_HEAD = 0, EM_PARSE_LEN = 1, EM_PARSE_GET_FRAME = 2, EM_PARSE_MAX = 3 };

  enum class Found {
    Nothing,      ///< no further frame; what is not consumed may become one with more bytes
    Frame,        ///< Frame() is whole and its check byte right
    BadChecksum,  ///< Frame() is whole, its check byte wrong; the scan goes on behind it
    Oversize,     ///< Frame() would be longer than allowed; all bytes are consumed
  };

  /// `maxFrame` is the largest frame accepted, in bytes.
  McuFrameParser(const uint8_t* data, size_t size, size_t maxFrame);

  /// Goes on to the next find.
  Found Next();

  /// How many bytes of the front are done with: noise and whole frames.
  [[nodiscard]] size_t Consumed() const { return m_iConsumed; }
  /// The frame of the last find, and the length that it has or announces.
  [[nodiscard]] const uint8_t* Frame() const { return m_frame; }
  [[nodiscard]] size_t FrameSize() const { return m_iFrameSize; }
  [[nodiscard]] ParseState State() const { return m_emParseType; }

 private:
  [[nodiscard]] size_t _Left() const { return m_size - m_iConsumed; }
  /// Consumes what precedes the next head. False when none is left; a last byte that may begin one is kept.
  bool _FindHead();

  const uint8_t* const m_data;
  const size_t m_size;
  const size_t m_iMaxFrame;
  ParseState m_emParseType = EM_PARSE_HEAD;
  size_t m_iConsumed = 0;
  const uint8_t* m_frame = nullptr;
  size_t m_iFrameSize = 0;
};
