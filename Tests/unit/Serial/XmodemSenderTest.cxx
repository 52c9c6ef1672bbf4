// The XMODEM sender against a scripted boot loader: what it answers to each thing it is sent stands in the
// test. No time passes here: where the script says nothing, the line reports silence at once.
#include "BSW/Serial/XmodemSender.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "BSW/BasicFun/Crc.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Result = XmodemSender::Result;

const std::string kAck = "\x06";
const std::string kNak = "\x15";
const std::string kCan = "\x18";
constexpr char kEot = 0x04;

class ScriptedLoader : public IXmodemLine {
 public:
  // `call` comes before anything is sent; answers[n] comes after the n-th frame. Frames without an entry are
  // acknowledged.
  ScriptedLoader(const std::string& call, std::vector<std::string> answers)
      : m_incoming(call.begin(), call.end()), m_answers(std::move(answers)) {}

  int Receive(std::chrono::milliseconds /*time*/) override {
    if (m_incoming.empty()) return kSilence;
    const auto byte = static_cast<uint8_t>(m_incoming.front());
    m_incoming.pop_front();
    return byte;
  }
  void Purge() override { m_incoming.clear(); }
  bool Send(const uint8_t* data, size_t size) override {
    const size_t number = sent.size();
    sent.emplace_back(data, data + size);
    if (number == failAt) return false;
    const std::string answer = number < m_answers.size() ? m_answers[number] : kAck;
    m_incoming.insert(m_incoming.end(), answer.begin(), answer.end());
    return true;
  }

  // The first byte behind the head of each block that was sent, '-' for EOT, 'X' for CANs.
  std::string Summary() const {
    std::string text;
    for (const Bytes& frame : sent) {
      text += frame.size() > 8 ? static_cast<char>(frame[3]) : frame.front() == kEot ? '-' : 'X';
    }
    return text;
  }

  std::vector<Bytes> sent;
  size_t failAt = SIZE_MAX;

 private:
  std::deque<char> m_incoming;
  const std::vector<std::string> m_answers;
};

// Three blocks, the last of one byte: "a", "b", "c" in their summary.
const std::string kImage = std::string(1024, 'a') + std::string(1024, 'b') + "c";

Result Send(ScriptedLoader& loader) {
  return XmodemSender(loader).Send(kImage, [](size_t, size_t) {});
}

TEST(XmodemSenderTest, SendsBlocksAsTheReferenceSays) {
  ScriptedLoader loader("C", {});
  std::vector<size_t> steps;
  EXPECT_EQ(XmodemSender(loader).Send(kImage,
                                      [&](size_t done, size_t total) { steps.push_back(done * 10 + total); }),
            Result::Done);
  EXPECT_EQ(steps, std::vector<size_t>({13, 23, 33}));
  ASSERT_EQ(loader.Summary(), "abc-");
  const Bytes& last = loader.sent[2];
  ASSERT_EQ(last.size(), 3U + 1024U + 2U);
  EXPECT_EQ(Bytes(last.begin(), last.begin() + 6), Bytes({0x02, 3, 0xFC, 'c', 0x1A, 0x1A}));
  EXPECT_EQ(last[1026], 0x1A);
  const uint16_t crc = CRC16_XMODEM(last.data() + 3, 1024);
  EXPECT_EQ(last[1027], crc >> 8);
  EXPECT_EQ(last[1028], crc & 0xFF);
}

TEST(XmodemSenderTest, BlockNumberWraps) {
  ScriptedLoader loader("C", {});
  ASSERT_EQ(XmodemSender(loader).Send(std::string(256 * 1024, 'x'), [](size_t, size_t) {}), Result::Done);
  EXPECT_EQ(loader.sent[254][1], 255);
  EXPECT_EQ(loader.sent[255][1], 0);
  EXPECT_EQ(loader.sent[255][2], 255);
}

TEST(XmodemSenderTest, RepeatsWhatWasNotAcknowledged) {
  struct Row {
    const char* what;
    std::string call;
    std::vector<std::string> answers;
    std::string summary;
  };
  const Row rows[] = {
      {"refused once", "C", {kNak}, "aabc-"},
      {"lost block or answer", "C", {kAck, "", kAck}, "abbc-"},
      {"doubled answer", "C", {kAck + kAck, kAck, kNak}, "abcc-"},
      {"late calls are no answer", "CCC", {"CC", "CC" + kAck}, "aabc-"},
      {"noise before the answer", "C", {"\xff\x01" + kAck, "\x7f" + kNak}, "abbc-"},
      {"end wanted twice", "C", {kAck, kAck, kAck, kNak}, "abc--"},
      {"nine refusals", "C", std::vector<std::string>(9, kNak), "aaaaaaaaaabc-"},
      {"noise before the call",
       "\x06\x15\x18z\x18"
       "C",
       {},
       "abc-"},
      {"a single CAN in noise", "C", {kCan + "z" + kAck}, "abc-"},
  };
  for (const Row& row : rows) {
    ScriptedLoader loader(row.call, row.answers);
    EXPECT_EQ(Send(loader), Result::Done) << row.what;
    EXPECT_EQ(loader.Summary(), row.summary) << row.what;
  }
}

TEST(XmodemSenderTest, GivesUp) {
  struct Row {
    const char* what;
    std::string call;
    std::vector<std::string> answers;
    Result result;
    std::string summary;
  };
  const Row rows[] = {
      {"nobody there", "", {}, Result::NoCall, ""},
      {"only noise", "abc\x06", {}, Result::NoCall, ""},
      {"refused before it began", kCan + kCan, {}, Result::Cancelled, ""},
      {"silent from the second block", "C",
       [] {
         std::vector<std::string> answers(11, "");
         answers[0] = kAck;
         return answers;
       }(),
       Result::NoAnswer, "abbbbbbbbbbX"},
      {"refused ten times", "C", std::vector<std::string>(10, kNak), Result::Refused, "aaaaaaaaaaX"},
      {"cancelled", "C", {kAck, kCan + kCan}, Result::Cancelled, "ab"},
      {"cancelled with one CAN", "C", {kAck, kCan}, Result::Cancelled, "ab"},
      {"end never acknowledged",
       "C",
       {kAck, kAck, kAck, "", "", "", "", "", "", "", "", "", ""},
       Result::NoAnswer,
       "abc----------X"},
  };
  for (const Row& row : rows) {
    ScriptedLoader loader(row.call, row.answers);
    EXPECT_EQ(Send(loader), row.result) << row.what;
    EXPECT_EQ(loader.Summary(), row.summary) << row.what;
  }
  ScriptedLoader gone("C", {});
  gone.failAt = 1;
  EXPECT_EQ(Send(gone), Result::LineDown);
  EXPECT_EQ(gone.Summary(), "ab");
}

}  // namespace
