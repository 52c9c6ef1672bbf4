/// The scan for frames as a walk through three states: head, length, frame.
#include "BSW/Serial/McuFrameParser.h"

#include <algorithm>

#include "BSW/BasicFun/Crc.h"
#include "BSW/Serial/McuFrame.h"

namespace {

constexpr size_t kBytesToLength = 4;  // head and length field

}  // namespace

McuFrameParser::McuFrameParser(const uint8_t* data, size_t size, size_t maxFrame)
    : m_data(data), m_size(size), m_iMaxFrame(maxFrame) {}

McuFrameParser::Found McuFrameParser::Next() {
  for (;;) {
    switch (m_emParseType) {
      case EM_PARSE_LEN:
        if (_Left() < kBytesToLength) return Found::Nothing;
        m_frame = m_data + m_iConsumed;
        m_iFrameSize = McuFrame::FrameSize(m_frame);
        if (m_iFrameSize > m_iMaxFrame) {
          m_iConsumed = m_size;
          m_emParseType = EM_PARSE_HEAD;
          return Found::Oversize;
        }
        m_emParseType = EM_PARSE_GET_FRAME;
        break;

      case EM_PARSE_GET_FRAME:
        if (_Left() < m_iFrameSize) return Found::Nothing;
        m_iConsumed += m_iFrameSize;
        m_emParseType = EM_PARSE_HEAD;
        return CrcXor(m_frame, m_iFrameSize - 1) == m_frame[m_iFrameSize - 1] ? Found::Frame
                                                                              : Found::BadChecksum;

      default:
        if (_Left() < kBytesToLength || !_FindHead()) return Found::Nothing;
        m_emParseType = EM_PARSE_LEN;
        break;
    }
  }
}

bool McuFrameParser::_FindHead() {
  const uint8_t* const end = m_data + m_size;
  const uint8_t* head =
      std::search(m_data + m_iConsumed, end, McuFrame::m_FrameHead.begin(), McuFrame::m_FrameHead.end());
  const bool found = head != end;
  // A head may be torn between this byte and the next to come.
  if (!found && end[-1] == McuFrame::EM_VAL_HEAD_H) --head;
  m_iConsumed = static_cast<size_t>(head - m_data);
  return found;
}
