// The line settings bit by bit, and the life of the descriptor: whole writes, and closing while it is used.
#include "BSW/Serial/CSerial.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "BSW/Serial/LineSettings.h"
#include "SerialTestKit.h"

namespace {

constexpr int kTimeoutMs = 3000;
constexpr tcflag_t kSpeedBits = CBAUD | CBAUDEX;

struct FormatRow {
  emSerialDataBits bits;
  emSerialParity parity;
  emSerialStopBits stop;
  emSerialFlowControl flow;
  tcflag_t before;    // control flags
  tcflag_t expected;  // control flags without the speed
};

constexpr FormatRow kFormats[] = {
    {emSerialDataBits_8, emSerialParity_None, emSerialStopBits_1, emSerialFlowControl_None,
     CS5 | CSTOPB | PARENB | CRTSCTS, CS8},
    {emSerialDataBits_7, emSerialParity_Odd, emSerialStopBits_1, emSerialFlowControl_Hw, CS8,
     CS7 | PARENB | PARODD | CRTSCTS},
    {emSerialDataBits_6, emSerialParity_Even, emSerialStopBits_1, emSerialFlowControl_Soft, PARODD,
     CS6 | PARENB | (0x1C00 & ~kSpeedBits)},
    // The stop bits come after the parity, which takes them away.
    {emSerialDataBits_5, emSerialParity_Space, emSerialStopBits_2, emSerialFlowControl_None, PARENB, CSTOPB},
};

}  // namespace

TEST(LineSettings, PutTheLineFormatIntoTheControlFlags) {
  for (const FormatRow& row : kFormats) {
    UART_MNG_INFO_S info;
    info.eDataBits = row.bits;
    info.eParity = row.parity;
    info.eStopBits = row.stop;
    info.eFlowControl = row.flow;
    termios attributes{};
    attributes.c_cflag = row.before;
    ASSERT_TRUE(ApplyLineFormat(info, attributes));
    EXPECT_EQ(attributes.c_cflag & ~kSpeedBits, row.expected);
    EXPECT_EQ((attributes.c_iflag & INPCK) != 0,
              row.parity == emSerialParity_Odd || row.parity == emSerialParity_Even);
    ApplyRawMode(kTimeoutMs, attributes);
    EXPECT_EQ(attributes.c_iflag, 0U);
  }
}

TEST(CSerial, OpensALineAsItsRecordSaysAndOnlyWithATimeout) {
  PtyPeer peer;
  CSerial serial;
  UART_MNG_INFO_S info = peer.Info(emSerialBaudRate_921600);
  EXPECT_FALSE(serial.Open(nullptr, kTimeoutMs));
  EXPECT_FALSE(serial.Open(&info, 99));
  EXPECT_EQ(serial.Write("x", 1), -1) << "the line must be closed again";

  ASSERT_TRUE(serial.Open(&info, 100));
  const termios settings = peer.Settings();
  EXPECT_EQ(peer.Speed(), B921600);
  EXPECT_EQ(settings.c_cc[VTIME], 1);
  EXPECT_EQ(settings.c_cc[VMIN], 1);
  EXPECT_EQ(settings.c_lflag & (ISIG | ICANON | ECHO | ECHOE | IEXTEN), 0U);
  EXPECT_EQ(settings.c_oflag & (OPOST | ONLCR | OCRNL), 0U);
  EXPECT_NE(settings.c_cflag & CLOCAL, 0U);

  info.eBaudRate = static_cast<emSerialBaudRate>(10);
  EXPECT_FALSE(serial.Open(&info, kTimeoutMs));
  EXPECT_EQ(serial.Write("x", 1), -1);
}

TEST(CSerial, ChangesTheSpeedInPlaceExceptTo921600) {
  PtyPeer peer;
  CSerial serial;
  EXPECT_FALSE(serial.SetBaudRate(emSerialBaudRate_9600)) << "closed";
  const UART_MNG_INFO_S info = peer.Info(emSerialBaudRate_19200);
  ASSERT_TRUE(serial.Open(&info, kTimeoutMs));
  EXPECT_TRUE(serial.SetBaudRate(emSerialBaudRate_3000000));
  EXPECT_EQ(peer.Speed(), B3000000);
  EXPECT_FALSE(serial.SetBaudRate(emSerialBaudRate_921600));
  EXPECT_EQ(peer.Speed(), B3000000);
}

TEST(CSerial, ReadTellsDataSilenceAndABrokenLineApart) {
  PtyPeer peer;
  CSerial serial;
  std::array<char, 16> buffer{};
  EXPECT_EQ(serial.Read(buffer.data(), 16, false, 0), -1) << "closed";
  const UART_MNG_INFO_S info = peer.Info();
  ASSERT_TRUE(serial.Open(&info, kTimeoutMs));
  EXPECT_GE(SecondsOf([&] { EXPECT_EQ(serial.Read(buffer.data(), 16, false, 0), 0); }), 0.0107);
  peer.Send({'a', 'b', '\r', 0x03});
  ASSERT_EQ(serial.Read(buffer.data(), 16, true, 0), 4);
  EXPECT_EQ(std::string(buffer.data(), 4), "ab\r\x03");
  peer.Unplug();
  EXPECT_EQ(serial.Read(buffer.data(), 16, false, kTimeoutMs), -1);
}

TEST(CSerial, AWriteThatNobodyTakesEndsByItselfOrByTheClose) {
  const std::string plenty(1024 * 1024, 'x');
  const int size = static_cast<int>(plenty.size());
  for (const bool closed : {false, true}) {
    PtyPeer peer;
    CSerial serial;
    const UART_MNG_INFO_S info = peer.Info();
    ASSERT_TRUE(serial.Open(&info, kTimeoutMs));
    std::thread writer([&] { EXPECT_EQ(serial.Write(plenty.data(), size), -1); });
    peer.Receive(1);
    if (closed) {
      EXPECT_LT(SecondsOf([&] { serial.Close(); }), 2.0) << "waited for the write's own bound";
    }
    writer.join();
  }
}

TEST(CSerial, AReadNeverMeetsADescriptorNumberThatWasGivenAwayAgain) {
  PtyPeer peer;
  CSerial serial;
  const UART_MNG_INFO_S info = peer.Info();
  std::atomic<bool> run{true};
  std::atomic<int> foreignBytes{0};
  std::thread reader([&] {
    while (run) {
      char byte = '\0';
      const int count = serial.Read(&byte, 1, false, kTimeoutMs);
      if (count > 0 && byte != 'o') ++foreignBytes;
      if (count < 0) std::this_thread::yield();
    }
  });
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(serial.Open(&info, kTimeoutMs));
    peer.Send({'o'});
    // Usually the close then comes in the pause between the wait for the byte and the read.
    std::this_thread::sleep_for(std::chrono::milliseconds(4));
    serial.Close();
    std::array<int, 2> other{};
    ASSERT_EQ(pipe(other.data()), 0);  // takes the number that the close gave back
    ASSERT_EQ(write(other[1], "ffff", 4), 4);
    std::this_thread::sleep_for(std::chrono::milliseconds(15));
    for (const int fd : other) close(fd);
  }
  run = false;
  reader.join();
  EXPECT_EQ(foreignBytes, 0);
}
