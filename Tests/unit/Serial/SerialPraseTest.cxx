// Frames of the legacy portable parts: built, found in a stream, checked, and carried by a port.
#include "BSW/Serial/SerialPrase.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "SerialTestKit.h"

namespace {

constexpr uint32_t kMaxRecvLen = 32;
constexpr uint8_t kHangUp = 0x7E;  // closes the port

class LegacyPort : public SerialPrase {
 public:
  LegacyPort() : SerialPrase("Test", kMaxRecvLen) {}
  ~LegacyPort() override { DestroySerial(); }

  int UartRecvCallback(uint8_t dataType, const uint8_t* payload, int16_t length) override {
    if (dataType == kHangUp) DestroySerial();
    frames.Put(Bytes({dataType}) + Bytes(payload, payload + length));
    return 0;
  }

  Inbox<Bytes> frames;  // type and payload of each
};

// A frame as the portable part sends it.
Bytes Received(uint8_t type, const Bytes& payload) {
  Bytes frame = Bytes({0xAA, 0xDD, type, static_cast<uint8_t>(payload.size()), 0}) + payload;
  uint8_t check = 0;
  for (const uint8_t byte : frame) check ^= byte;
  frame.push_back(check);
  return frame;
}

// What the line reader finds in `stream` when it comes in chunks of `chunk` bytes.
std::vector<Bytes> Lines(const Bytes& stream, size_t chunk) {
  SerialLineReader reader(chunk);
  size_t at = 0;
  const auto refill = [&](char* buffer, int length) {
    const size_t count = std::min({stream.size() - at, chunk, static_cast<size_t>(length)});
    std::copy_n(stream.begin() + static_cast<std::ptrdiff_t>(at), count, buffer);
    at += count;
    return static_cast<int>(count);
  };
  std::vector<Bytes> lines;
  Bytes line(kMaxRecvLen + kSerialPraseOverhead);
  for (int32_t size = 0; (size = reader.GetLine(line.data(), kMaxRecvLen, refill)) > 0;) {
    lines.emplace_back(line.begin(), line.begin() + size);
  }
  return lines;
}

}  // namespace

TEST(SerialPrase, PacksWhatFitsAndNeverBeyondTheBuffer) {
  LegacyPort port;
  Bytes buffer(64, 0xEE);
  ASSERT_EQ(port.PackFrame(buffer.data(), 64, 0xB1, nullptr, 0), 6);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 6), Bytes({0xBB, 0xDD, 0xB1, 0x00, 0x00, 0xD7}));
  EXPECT_EQ(port.PackFrame(buffer.data(), 10, 0xB1, nullptr, 5), 6) << "no payload: the length stays 0";
  EXPECT_EQ(buffer[3], 0);

  const Bytes payload = {1, 2, 3};
  ASSERT_EQ(port.PackFrame(buffer.data(), 9, 0x42, payload.data(), 3), 9);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 9), Bytes({0xBB, 0xDD, 0x42, 3, 0, 1, 2, 3, 0x27}));
  Bytes exact(8);
  EXPECT_EQ(port.PackFrame(exact.data(), 8, 0x42, payload.data(), 3), -1) << "no room for the check byte";
  EXPECT_EQ(port.PackFrame(nullptr, 8, 0x42, payload.data(), 3), -1);
}

TEST(SerialPrase, UnpacksOnlyWholeFramesOfTheOtherEnd) {
  LegacyPort port;
  const Bytes good = Received(0xB1, {5, 6});
  const auto size = static_cast<uint16_t>(good.size());
  Bytes out(good.size());
  EXPECT_EQ(port.UnpackFrame(good.data(), size, out.data()), size);
  EXPECT_EQ(out, good);
  EXPECT_EQ(port.UnpackFrame(nullptr, size, out.data()), -1);
  for (uint16_t shorter = 0; shorter < size; ++shorter) {
    const Bytes torn(good.begin(), good.begin() + shorter);  // of its own, so that reading beyond it shows
    EXPECT_EQ(port.UnpackFrame(torn.data(), shorter, nullptr), -1) << shorter;
  }
  for (size_t i = 0; i < good.size(); ++i) {
    Bytes bad = good;
    bad[i] ^= 0x11;
    EXPECT_EQ(port.UnpackFrame(bad.data(), size, nullptr), -1) << "byte " << i;
  }
}

TEST(SerialPrase, FindsFramesInWhateverChunksAndNoise) {
  const Bytes one = Received(0xB1, {0xAA, 0xDD, 0xAA});  // a tag within the payload is payload
  const Bytes two = Received(0x10, {});
  const Bytes largest = Received(0x11, Bytes(kMaxRecvLen, 0x55));
  const Bytes tooLong = Received(0x12, Bytes(kMaxRecvLen + 1, 0x55));
  const struct {
    const char* name;
    Bytes stream;
    std::vector<Bytes> lines;
  } rows[] = {
      {"one behind the other", one + two + largest, {one, two, largest}},
      {"behind noise", Bytes({0x00, 0xDD, 0xBB, 0xDD}) + one + Bytes({1, 2}) + two, {one, two}},
      {"behind noise that looks like a head",
       Bytes({0xAA, 0x00, 0xAA}) + one + Bytes({0xAA, 0xAA}) + two,
       {one, two}},
      {"behind one that is too long", tooLong + one, {one}},
      {"torn off at the end", one + Bytes(two.begin(), two.end() - 1), {one}},
  };
  for (const auto& row : rows) {
    for (size_t chunk = 1; chunk <= row.stream.size(); ++chunk) {
      EXPECT_EQ(Lines(row.stream, chunk), row.lines) << row.name << ", chunks of " << chunk;
    }
  }
}

TEST(SerialPrase, CarriesFramesOverTheLineAndDropsBadOnes) {
  PtyPeer peer;
  LegacyPort port;
  UART_MNG_INFO_S info = peer.Info();
  ASSERT_TRUE(port.CreateSerial(&info));
  EXPECT_EQ(port.SendFrame(0xB1, nullptr, 0), 6);
  EXPECT_EQ(peer.Receive(6), Bytes({0xBB, 0xDD, 0xB1, 0x00, 0x00, 0xD7}));
  const Bytes fill(kMaxRecvLen, 7);
  EXPECT_EQ(port.SendFrame(0xB1, fill.data(), kMaxRecvLen - 5), static_cast<short>(kMaxRecvLen + 1));
  peer.Receive(kMaxRecvLen + 1);
  EXPECT_EQ(port.SendFrame(0xB1, fill.data(), kMaxRecvLen - 4), -1);

  Bytes bad = Received(0xB1, {9});
  bad.back() ^= 1U;
  for (const uint8_t byte : Received(0xB1, {1, 2}) + bad) peer.Send({byte});
  peer.Send(Received(0x20, {}) + Received(0x21, {3}));
  EXPECT_EQ(port.frames.Wait(3), std::vector<Bytes>({{0xB1, 1, 2}, {0x20}, {0x21, 3}}));

  // What a restart cuts off does not spoil the next frame.
  peer.Send({0xAA, 0xDD, 0x22, 9});
  ASSERT_TRUE(port.RestartSerial(&info));
  peer.Send(Received(0x23, {}));
  EXPECT_EQ(port.frames.Wait(4).back(), Bytes({0x23}));

  // What was read together with the last frame of one device is not the next one's.
  peer.Send(Received(kHangUp, {}) + Received(0x24, {}));
  port.frames.Wait(5);
  port.DestroySerial();
  const PtyPeer next;
  info = next.Info();
  ASSERT_TRUE(port.CreateSerial(&info));
  next.Send(Received(0x25, {}));
  EXPECT_EQ(port.frames.Wait(6).back(), Bytes({0x25}));
}
