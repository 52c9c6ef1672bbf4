/// The sending side of XMODEM-1K. Times and tries are the receiving chip's.
#include "BSW/Serial/XmodemSender.h"

#include <algorithm>

#include "BSW/BasicFun/Crc.h"
#include "BSW/Log/CLog.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint8_t kStx = 0x02;
constexpr uint8_t kEot = 0x04;
constexpr char kAck = 0x06;
constexpr char kNak = 0x15;
constexpr uint8_t kCan = 0x18;
constexpr uint8_t kFill = 0x1A;
constexpr char kCall = 'C';
constexpr size_t kHeadBytes = 3;
constexpr size_t kCrcBytes = 2;
/// As many as the reference recommends, so that some get through.
constexpr size_t kCansToGiveUp = 8;

}  // namespace

XmodemSender::Result XmodemSender::Send(const std::string& image, const Progress& progress) {
  switch (_Await({&kCall, 1}, kCallTime)) {
    case kCall:
      break;
    case kCan:
      return Result::Cancelled;
    case IXmodemLine::kStopped:
      return Result::Stopped;
    default:
      return Result::NoCall;
  }
  const Result result = _SendBlocks(image, progress);
  if (result != Result::Done && result != Result::Cancelled && result != Result::LineDown) {
    const Bytes cans(kCansToGiveUp, kCan);
    m_line.Send(cans.data(), cans.size());
  }
  return result;
}

XmodemSender::Result XmodemSender::_SendBlocks(const std::string& image, const Progress& progress) {
  const size_t total = (image.size() + kBlockBytes - 1) / kBlockBytes;
  for (size_t index = 0; index < total; ++index) {
    const Result result = _SendUntilAck(_Block(image, index));
    if (result != Result::Done) return result;
    progress(index + 1, total);
  }
  return _SendUntilAck({kEot});
}

XmodemSender::Result XmodemSender::_SendUntilAck(const Bytes& frame) {
  Result result = Result::NoAnswer;
  for (int tries = 1; tries <= kMaxTries; ++tries) {
    // What came before cannot be the answer.
    m_line.Purge();
    if (!m_line.Send(frame.data(), frame.size())) return Result::LineDown;
    constexpr char kAnswers[] = {kAck, kNak};
    switch (_Await({kAnswers, sizeof kAnswers}, kAnswerTime)) {
      case kAck:
        // After a repetition another ACK may be on its way; taken for the next block's it would shift all
        // that follow.
        if (tries > 1) _WaitForSilence();
        return Result::Done;
      case kNak:
        result = Result::Refused;
        break;
      case kCan:
        return Result::Cancelled;
      case IXmodemLine::kStopped:
        return Result::Stopped;
      default:
        result = Result::NoAnswer;
        break;
    }
    LOGW("XMODEM try %d of %d: %s", tries, kMaxTries, Text(result));
  }
  return result;
}

void XmodemSender::_WaitForSilence() {
  const Clock::time_point deadline = Clock::now() + kAnswerTime;
  while (Clock::now() < deadline) {
    const int byte = m_line.Receive(kQuietTime);
    if (byte == IXmodemLine::kSilence || byte == IXmodemLine::kStopped) return;
  }
}

int XmodemSender::_Await(std::string_view wanted, milliseconds time) {
  const Clock::time_point deadline = Clock::now() + time;
  bool afterCan = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    const int byte = left.count() > 0 ? m_line.Receive(left) : IXmodemLine::kSilence;
    if (byte == IXmodemLine::kStopped) return byte;
    if (byte == IXmodemLine::kSilence) return afterCan ? kCan : byte;
    if (byte == kCan && afterCan) return kCan;
    afterCan = byte == kCan;
    if (wanted.find(static_cast<char>(byte)) != std::string_view::npos) return byte;
  }
}

XmodemSender::Bytes XmodemSender::_Block(const std::string& image, size_t index) {
  const auto number = static_cast<uint8_t>(index + 1);
  const std::string_view data = std::string_view(image).substr(index * kBlockBytes, kBlockBytes);
  Bytes block(kHeadBytes + kBlockBytes + kCrcBytes, kFill);
  block[0] = kStx;
  block[1] = number;
  block[2] = static_cast<uint8_t>(~number);
  std::copy(data.begin(), data.end(), block.begin() + kHeadBytes);
  const uint16_t crc = CRC16_XMODEM(block.data() + kHeadBytes, kBlockBytes);
  block[kHeadBytes + kBlockBytes] = static_cast<uint8_t>(crc >> 8U);
  block[kHeadBytes + kBlockBytes + 1] = static_cast<uint8_t>(crc);
  return block;
}

const char* XmodemSender::Text(Result result) {
  switch (result) {
    case Result::Done:
      return "done";
    case Result::NoCall:
      return "the boot loader does not call";
    case Result::NoAnswer:
      return "no answer";
    case Result::Refused:
      return "refused";
    case Result::Cancelled:
      return "cancelled by the boot loader";
    case Result::LineDown:
      return "the line is down";
    case Result::Stopped:
      return "stopped";
  }
  return "";
}
