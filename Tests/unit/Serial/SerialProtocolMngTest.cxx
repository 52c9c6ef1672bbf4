// Frames of the MCU: built byte by byte, found in any stream, and carried by a line with its two threads.
#include "BSW/Serial/SerialProtocolMng.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "BSW/Serial/McuFrameParser.h"
#include "SerialTestKit.h"

namespace {

constexpr SerialProtocolMng::PayloadCfg_t kConfig = {0x01, 0x90, 0x01, 0x02};
constexpr size_t kMaxFrame = 64;

// A frame with the command code 0x01 and this sub-code.
Bytes Frame(uint8_t subCode, const Bytes& data = {}) {
  Bytes frame =
      Bytes({0xAA, 0xDD, static_cast<uint8_t>(data.size() + 7), 0, 0x01, 0x90, 0x02, 0, 2, 0x01, subCode});
  frame = frame + data;
  uint8_t check = 0;
  for (const uint8_t byte : frame) check ^= byte;
  frame.push_back(check);
  return frame;
}

Bytes Broken(Bytes frame) {
  frame.back() ^= 0x80U;
  return frame;
}

// A receive queue: pieces come in, frames go out, noise is dropped.
struct Queue {
  Bytes queued;
  std::vector<Bytes> frames;

  void Receive(const Bytes& piece) {
    queued = queued + piece;
    McuFrameParser parser(queued.data(), queued.size(), kMaxFrame);
    for (auto found = parser.Next(); found != McuFrameParser::Found::Nothing; found = parser.Next()) {
      if (found == McuFrameParser::Found::Frame) {
        frames.emplace_back(parser.Frame(), parser.Frame() + parser.FrameSize());
      }
    }
    queued.erase(queued.begin(), queued.begin() + static_cast<std::ptrdiff_t>(parser.Consumed()));
  }
};

struct McuLine {
  McuLine() {
    mng.RegFrameRecvCb([this](const SerialProtocolMng::ProtocolData_t& data) {
      messages.Put(data);
      return true;
    });
    mng.RegisterUartEventCallback(
        [this](const void* data, short length) { return mng._UartRecvCallback(data, length); });
  }

  Inbox<SerialProtocolMng::ProtocolData_t> messages;
  SerialProtocolMng mng{"Test", 1024, kConfig};
};

}  // namespace

TEST(McuFrameParser, FindsFramesHoweverTheStreamIsTorn) {
  const Bytes one = Frame(0xA1, {0xAA, 0xDD, 0x07, 0x00});  // a head within the data is data
  const Bytes two = Frame(0xA2);
  const Bytes largest = Frame(0xA3, Bytes(kMaxFrame - 12, 0xAA));
  const struct {
    const char* name;
    Bytes stream;
    std::vector<Bytes> frames;
  } rows[] = {
      {"one behind the other", one + two + largest, {one, two, largest}},
      {"behind noise", Bytes({0xDD, 0x00, 0xAA}) + one + Bytes({0xAA, 0xAA}) + two, {one, two}},
      {"behind a bad check byte", Broken(one) + two, {two}},
      {"shorter than a frame can be",
       Bytes({0xAA, 0xDD, 0x00, 0x00, 0x77}) + one,
       {{0xAA, 0xDD, 0x00, 0x00, 0x77}, one}},
  };
  for (const auto& row : rows) {
    Queue byByte;
    for (const uint8_t byte : row.stream) byByte.Receive({byte});
    EXPECT_EQ(byByte.frames, row.frames) << row.name << ", byte by byte";
    for (size_t at = 0; at <= row.stream.size(); ++at) {
      const auto middle = row.stream.begin() + static_cast<std::ptrdiff_t>(at);
      Queue queue;
      queue.Receive(Bytes(row.stream.begin(), middle));
      queue.Receive(Bytes(middle, row.stream.end()));
      EXPECT_EQ(queue.frames, row.frames) << row.name << ", torn at " << at;
      EXPECT_TRUE(queue.queued.empty()) << row.name << ", torn at " << at;
    }
  }
}

TEST(McuFrameParser, KeepsOnlyWhatMayBecomeAFrame) {
  const struct {
    Bytes stream;
    size_t kept;
  } rows[] = {
      {{0x01, 0x02, 0x03}, 3},        // too short to tell
      {{1, 2, 3, 4, 5}, 0},           // noise
      {Bytes(100, 0xAA), 1},          // the last may begin a head
      {{1, 2, 3, 0xAA, 0xDD, 7}, 3},  // a head without its length
      {{9, 0xAA, 0xDD, 0x07, 0x00, 1}, 5},
      {Frame(0xA1, Bytes(kMaxFrame - 11)) + Frame(0xA2), 0},  // too long: the rest goes with it
  };
  for (const auto& row : rows) {
    Queue queue;
    queue.Receive(row.stream);
    EXPECT_TRUE(queue.frames.empty());
    EXPECT_EQ(queue.queued.size(), row.kept) << ::testing::PrintToString(row.stream);
    queue.queued.clear();
    queue.Receive(Frame(0xA4));
    EXPECT_EQ(queue.frames.size(), 1U);
  }
}

TEST(McuFrame, UnpacksOnlyWhatFitsItsLength) {
  const Bytes frame = Frame(0xA5, {7, 8});
  const auto data = McuFrame::Unpack(frame.data(), frame.size());
  ASSERT_TRUE(data);
  EXPECT_EQ(data->m_iCmd, 0x01A5);
  EXPECT_EQ(data->m_emCmdType, McuFrame::EM_CMD_RESPONE);
  EXPECT_EQ(data->m_vecDataField, Bytes({7, 8}));
  EXPECT_EQ(data->m_iProVer, 0x01);
  EXPECT_EQ(data->m_iProNum, 0x90);
  EXPECT_EQ(data->m_iDevType, 0x02);
  EXPECT_TRUE(McuFrame::Unpack(Frame(0xA5).data(), 12)->Empty());
  EXPECT_FALSE(McuFrame::Unpack(frame.data(), 11));
  EXPECT_FALSE(McuFrame::Unpack(frame.data(), frame.size() - 1));
}

TEST(SerialProtocolMng, NumbersTheFramesItSends) {
  PtyPeer peer;
  McuLine line;
  SerialProtocolMng::ProtocolData_t request;
  request.m_iCmd = 0x01A0;
  EXPECT_FALSE(line.mng.PackAndSendFrame(request)) << "closed: the number is used again";
  const UART_MNG_INFO_S info = peer.Info();
  ASSERT_TRUE(line.mng.CreateSerial(&info));
  for (unsigned snr = 0; snr < 258; ++snr) {
    ASSERT_TRUE(line.mng.PackAndSendFrame(request));
    const Bytes frame = peer.Receive(12);
    if (snr == 0) {
      EXPECT_EQ(frame, Bytes({0xAA, 0xDD, 7, 0, 1, 0x90, 1, 0, 1, 0x01, 0xA0, 0x40}));
    }
    ASSERT_EQ(frame.at(7), snr % 256);
  }
  request.m_vecDataField = {5, 6};
  ASSERT_TRUE(line.mng.PackAndSendFrame(request));
  EXPECT_EQ(peer.Receive(14), Bytes({0xAA, 0xDD, 9, 0, 1, 0x90, 1, 2, 1, 0x01, 0xA0, 5, 6, 0x4F}));
  request.m_vecDataField.resize(0x10000);
  EXPECT_FALSE(line.mng.PackAndSendFrame(request));
}

TEST(SerialProtocolMng, HandsOverTheMessagesOfALineThatIsCutAndRestored) {
  PtyPeer peer;
  ByteBox seen;
  McuLine line;
  const UART_MNG_INFO_S info = peer.Info();
  ASSERT_TRUE(line.mng.CreateSerial(&info));
  peer.Send(Frame(1) + Broken(Frame(2)) + Frame(3, {0xAA, 0xDD}));
  for (const uint8_t byte : Frame(4)) peer.Send({byte});
  line.messages.Wait(3);

  const Bytes half = Frame(5, Bytes(20));
  line.mng.RegisterUartEventCallback([&](const void* data, short length) {
    line.mng._UartRecvCallback(data, length);
    return seen.Callback()(data, length);
  });
  peer.Send(Bytes(half.begin(), half.begin() + 15));
  seen.Wait(15);
  ASSERT_TRUE(line.mng.RestartSerial(&info));
  peer.Send(Frame(6) + Frame(7));
  std::vector<uint8_t> subCodes;
  for (const auto& message : line.messages.Wait(5)) subCodes.push_back(static_cast<uint8_t>(message.m_iCmd));
  EXPECT_EQ(subCodes, Bytes({1, 3, 4, 6, 7}));
  EXPECT_EQ(line.mng._UartRecvCallback(nullptr, 1), -1);
}

TEST(SerialProtocolMng, WaitsForTheRestOfAFrameWithoutSpinning) {
  McuLine line;
  const Bytes frame = Frame(1);
  for (const Bytes& start : {Bytes({0xAA}), Bytes(frame.begin(), frame.begin() + 6)}) {
    line.mng._UartRecvCallback(start.data(), static_cast<short>(start.size()));
    const std::clock_t before = std::clock();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
  }
}

// Else answers of one device would count as those of the next.
TEST(SerialProtocolMng, DeliversNothingOnceTheLineIsClosed) {
  PtyPeer peer;
  McuLine line;
  Inbox<bool> handling;
  Inbox<bool> released;
  line.mng.RegFrameRecvCb([&](const SerialProtocolMng::ProtocolData_t& data) {
    handling.Put(true);
    released.Wait(1);
    line.messages.Put(data);
    return true;
  });
  UART_MNG_INFO_S info = peer.Info();
  ASSERT_TRUE(line.mng.CreateSerial(&info));
  peer.Send(Frame(1) + Frame(2));
  handling.Wait(1);
  std::atomic<bool> closed{false};
  std::thread closer([&] {
    EXPECT_TRUE(line.mng.DestroySerial());
    closed = true;
  });
  while (line.mng.SendFrame("x", 1) == 1) std::this_thread::yield();
  // The line is closed; usually long enough for a closing that does not wait.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(closed) << "the handler still runs";
  released.Put(true);
  closer.join();
  EXPECT_EQ(line.messages.Wait(0).size(), 1U);
  const PtyPeer next;
  info = next.Info();
  ASSERT_TRUE(line.mng.CreateSerial(&info));
  next.Send(Frame(3));
  EXPECT_EQ(line.messages.Wait(2).back().m_iCmd, 0x0103);
}

TEST(SerialProtocolMng, FloodIsDroppedAndWhatComesAfterwardsIsHeard) {
  McuLine line;
  Inbox<bool> handling;
  Inbox<bool> released;
  line.mng.RegFrameRecvCb([&](const SerialProtocolMng::ProtocolData_t& data) {
    handling.Put(true);
    released.Wait(1);
    line.messages.Put(data);
    return true;
  });
  const auto receive = [&](const Bytes& bytes) {
    line.mng._UartRecvCallback(bytes.data(), static_cast<short>(bytes.size()));
  };
  receive(Frame(1));
  handling.Wait(1);
  constexpr size_t kFlood = 10'000;
  for (size_t i = 0; i < kFlood; ++i) receive(Frame(2));
  released.Put(true);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  const auto lastIs = [&](uint16_t command) {
    const auto all = line.messages.Wait(1);
    return all.back().m_iCmd == command;
  };
  while (!lastIs(0x0103) && std::chrono::steady_clock::now() < deadline) {
    receive(Frame(3));
    std::this_thread::yield();
  }
  EXPECT_TRUE(lastIs(0x0103));
  const auto all = line.messages.Wait(1);
  const auto kept =
      std::count_if(all.begin(), all.end(), [](const auto& data) { return data.m_iCmd == 0x0102; });
  EXPECT_GT(kept, 0);
  EXPECT_LT(kept, 1000);
}
