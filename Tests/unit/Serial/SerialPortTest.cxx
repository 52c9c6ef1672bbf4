// The life of a port with its receive thread: traffic, restarts from every side, stops, and a device that
// goes and comes back.
#include "BSW/Serial/SerialPort.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "../PlatformSDK/TempDirectory.h"
#include "SerialTestKit.h"

TEST(SerialPort, CarriesBytesBothWays) {
  PtyPeer peer;
  ByteBox box;
  SerialPort port("Test", 8);  // smaller than what comes
  port.RegisterUartEventCallback(box.Callback());
  const UART_MNG_INFO_S info = peer.Info();
  ASSERT_TRUE(port.CreateSerial(&info));
  const Bytes bytes = {0x00, 0x03, 0x0A, 0x0D, 0x11, 0x13, 0x7F, 0x80, 0xAA, 0xDD, 0xFF};
  for (const uint8_t byte : bytes) peer.Send({byte});
  EXPECT_EQ(box.Wait(bytes.size()), bytes);
  EXPECT_EQ(port.SendFrame("\0\n\xFF", 3), 3);
  EXPECT_EQ(peer.Receive(3), Bytes({0x00, 0x0A, 0xFF}));
  EXPECT_EQ(port.SendFrame("", 0), -1);
  EXPECT_EQ(SerialPort::GetSum({0xFF, 0x02, 0x10}), 0x11);
}

TEST(SerialPort, StopsAtOnceWhileItWaitsForBytes) {
  PtyPeer peer;
  const UART_MNG_INFO_S info = peer.Info();
  SerialPort port("Test", 16);
  constexpr int kStops = 5;
  double seconds = 0;
  for (int i = 0; i < kStops; ++i) {
    ASSERT_TRUE(port.CreateSerial(&info));
    // Usually enough for the thread to begin its wait.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    seconds += SecondsOf([&] { EXPECT_TRUE(port.DestroySerial()); });
  }
  EXPECT_LT(seconds, kStops * 0.5) << "the stops waited for the read's time-out";
  EXPECT_EQ(port.SendFrame("x", 1), -1) << "the line must be closed";
}

TEST(SerialPort, GoesOnAfterARestartFromAnyThread) {
  PtyPeer peer;
  ByteBox box;
  SerialPort port("Test", 16);
  const UART_MNG_INFO_S slow = peer.Info(emSerialBaudRate_19200);
  const UART_MNG_INFO_S fast = peer.Info(emSerialBaudRate_230400);
  port.RegisterUartEventCallback([&](const void* data, short length) {
    if (*static_cast<const char*>(data) == 'r') {
      EXPECT_TRUE(port.RestartSerial(&fast));
    }
    return box.Callback()(data, length);
  });
  ASSERT_TRUE(port.CreateSerial(&slow));
  peer.Send({'r'});
  box.Wait(1);
  EXPECT_EQ(peer.Speed(), B230400);
  peer.Send({'1'});
  box.Wait(2);

  EXPECT_TRUE(port.RestartSerial(&slow));
  EXPECT_EQ(peer.Speed(), B19200);
  EXPECT_EQ(port.SendFrame("2", 1), 1);
  EXPECT_EQ(peer.Receive(1), Bytes({'2'}));
  peer.Send({'3'});
  EXPECT_EQ(box.Wait(3), Bytes({'r', '1', '3'}));
}

TEST(SerialPort, ACallbackMayDestroyThePort) {
  PtyPeer peer;
  Inbox<bool> destroyed;
  ByteBox box;
  SerialPort port("Test", 16);
  const UART_MNG_INFO_S info = peer.Info();
  port.RegisterUartEventCallback([&](const void*, short) {
    destroyed.Put(port.DestroySerial());
    return 0;
  });
  ASSERT_TRUE(port.CreateSerial(&info));
  peer.Send({'x'});
  EXPECT_FALSE(destroyed.Wait(1).front()) << "it cannot wait for its own thread";
  EXPECT_TRUE(port.DestroySerial());

  port.RegisterUartEventCallback(box.Callback());
  ASSERT_TRUE(port.CreateSerial(&info));
  peer.Send({'y'});
  EXPECT_EQ(box.Wait(1), Bytes({'y'}));
}

TEST(SerialPort, SurvivesTheLossOfItsDevice) {
  const TempDirectory dev;
  const std::string node = dev / "tty";
  const auto plug = [&](const PtyPeer& peer) {
    unlink(node.c_str());
    ASSERT_EQ(symlink(peer.Device().c_str(), node.c_str()), 0);
  };
  ByteBox box;
  SerialPort port("Test", 16);
  port.RegisterUartEventCallback(box.Callback());
  UART_MNG_INFO_S info;
  ASSERT_TRUE(info.SetDevName(node));
  info.eBaudRate = emSerialBaudRate_230400;
  EXPECT_FALSE(port.CreateSerial(&info)) << "no such device yet";

  PtyPeer first;
  plug(first);
  ASSERT_TRUE(port.CreateSerial(&info));
  PtyPeer second;
  plug(second);
  first.Unplug();
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (second.Speed() != B230400 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  ASSERT_EQ(second.Speed(), B230400) << "the thread did not open it again";
  second.Send({'2'});
  EXPECT_EQ(box.Wait(1), Bytes({'2'}));

  unlink(node.c_str());
  second.Unplug();
  while (port.SendFrame("x", 1) != -1) std::this_thread::yield();
  // Whatever the thread is at, failing to read or to reopen: the next opening is served.
  PtyPeer third;
  plug(third);
  ASSERT_TRUE(port.RestartSerial(&info));
  third.Send({'3'});
  EXPECT_EQ(box.Wait(2), Bytes({'2', '3'}));
}

TEST(SerialPort, SendsLongFramesWholeAndKeepsThoseOfTwoSendersApart) {
  PtyPeer peer;
  SerialPort port("Test", 16);
  const UART_MNG_INFO_S info = peer.Info();
  ASSERT_TRUE(port.CreateSerial(&info));
  constexpr size_t kFrame = 64 * 1024;  // more than the pty takes at once
  const auto send = [&](char fill) {
    const std::string frame(kFrame, fill);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(port.SendFrame(frame.data(), kFrame), static_cast<int>(kFrame));
  };
  std::thread one(send, '1');
  std::thread two(send, '2');
  for (int i = 0; i < 8; ++i) {
    const Bytes frame = peer.Receive(kFrame);
    ASSERT_FALSE(frame.empty());
    EXPECT_EQ(frame, Bytes(kFrame, frame[0])) << "frame " << i;
  }
  one.join();
  two.join();
}
