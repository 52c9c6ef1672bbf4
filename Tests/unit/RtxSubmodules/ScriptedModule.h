// A radio module of a test, the files of its firmware, and the ways in which it can fall silent.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "../PlatformSDK/TempDirectory.h"
#include "../Serial/SerialTestKit.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"

constexpr size_t kImageBytes = 3000;

// Both loaders.
inline Bytes LoaderImage() {
  Bytes image(kImageBytes, 0x11);
  image.back() = 0x42;  // XOR of all: 0x11 ^ 0x42
  return image;
}

// The directory of a firmware: two blocks of a few bytes, at 0x1000 and 0x2000.
class ModuleFiles : public TempDirectory {
 public:
  ModuleFiles() {
    const Bytes image = LoaderImage();
    const std::string text(image.begin(), image.end());
    WriteText(*this / "rtx-pre-loader.bin", text);
    WriteText(*this / "rtx-flash-loader.bin", text);
    WriteText(*this / "._rtx.spihex", "no firmware");
    WriteText(*this / "rtx.spihex", ":03100000010203E7\n:0120000004DB\n:00000001FF\n");
  }
};

// A module at the other end of a pty, told step by step what to do.
class ScriptedModule {
 public:
  ScriptedModule() : m_keepOpen(open(m_pty.Device().c_str(), O_RDWR | O_NOCTTY)) {
    termios settings = m_pty.Settings();
    cfmakeraw(&settings);  // no echo before the line is opened either
    EXPECT_EQ(tcsetattr(m_keepOpen.Get(), TCSANOW, &settings), 0);
  }

  const std::string& Device() const { return m_pty.Device(); }
  void Send(const Bytes& bytes) const { m_pty.Send(bytes); }
  Bytes Receive(size_t count) const { return m_pty.Receive(count); }
  void Unplug() { m_pty.Unplug(); }
  // From now on the line takes nothing.
  void Block() const { EXPECT_EQ(tcflow(m_keepOpen.Get(), TCOOFF), 0); }

  // The boot ROM of a module that nobody waits for yet: it calls until it is answered.
  void CallUntilAnswered() const {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    do {
      Send({2});
    } while (!m_pty.HasInput(std::chrono::milliseconds(20)) && std::chrono::steady_clock::now() < end);
  }
  void TakePreLoader() const {
    EXPECT_EQ(Receive(3), Bytes({1, kImageBytes & 0xFF, kImageBytes >> 8}));
    Send({6});
    EXPECT_EQ(Receive(kImageBytes), LoaderImage());
  }
  void ConfirmPreLoader() const {
    Send({kCheck});
    EXPECT_EQ(Receive(1), Bytes({kCheck}));
  }
  void ChangeBaudRate() const {
    EXPECT_EQ(Receive(1), Bytes({1}));
    Send({2});
    // The speed's three bytes may be lost in the change; what announces it may not.
    for (Bytes got = Receive(1); got != Bytes({3}); got = Receive(1)) {
      ASSERT_EQ(got, Bytes({9}));
    }
    Send({0x80, 4});  // behind noise
  }
  void TakeFlashLoader() const {
    EXPECT_EQ(Receive(2), Bytes({kImageBytes >> 8, kImageBytes & 0xFF}));
    EXPECT_EQ(Receive(kImageBytes), LoaderImage());
  }
  void StartFlashLoader() const {
    TakePreLoader();
    ConfirmPreLoader();
    ChangeBaudRate();
    TakeFlashLoader();
    Send({kCheck});
  }

  // Answers requests as a NOR flash would, until `checks` ranges were checked.
  void ServeFlash(int checks) {
    while (checks > 0) {
      const Bytes request = ReceiveRequest();
      switch (request.at(0)) {
        case 13:
          Confirm({14, 1, 2, 3});
          break;
        case 15:
          Confirm({16, 1});
          break;
        case 17:
          for (size_t i = 7; i < request.size(); ++i) {
            flash[AddressOf(request) + static_cast<uint32_t>(i) - 7] &= request[i];
          }
          Confirm(Bytes({18}) + Bytes(request.begin() + 1, request.begin() + 7) + Bytes({1}));
          break;
        case 19:
          Confirm(Bytes({20}) + Bytes(request.begin() + 1, request.end()) + CrcOf(request));
          --checks;
          break;
        case 21:
          for (uint32_t i = 0; i < 4096; ++i) flash[AddressOf(request) / 4096 * 4096 + i] = 0xFF;
          Confirm(Bytes({22}) + Bytes(request.begin() + 1, request.begin() + 5) + Bytes({0}));  // "failed"
          break;
        default:
          FAIL() << "request " << int{request[0]};
      }
    }
  }
  Bytes ReceiveRequest() const {
    const Bytes head = Receive(3);
    const Bytes rest = Receive(head.at(1) + 256U * head.at(2) + 2U);
    const auto request = Rtx::ParseFlPacket(head + rest);
    EXPECT_TRUE(request);
    return request ? Bytes({request->m_iCmd}) + request->m_vecData : Bytes({0});
  }
  void Confirm(const Bytes& payload) const { Send(Rtx::PackFlPacket(payload)); }

  static constexpr uint8_t kCheck = 0x11 ^ 0x42;
  bool damaged = false;  // the flash checks its content wrongly
  std::map<uint32_t, uint8_t> flash;

 private:
  static uint32_t Number(const Bytes& bytes, size_t at) {
    return bytes.at(at) | bytes.at(at + 1) * 0x100U | bytes.at(at + 2) * 0x10000U |
           bytes.at(at + 3) * 0x1000000U;
  }
  static uint32_t AddressOf(const Bytes& request) { return Number(request, 1); }
  Bytes CrcOf(const Bytes& request) const {
    Bytes range;
    for (uint32_t i = 0; i < Number(request, 5); ++i) range.push_back(flash.at(AddressOf(request) + i));
    const auto crc = (damaged ? 1U : 0U) ^ crc32(0, range.data(), static_cast<uInt>(range.size()));
    return {static_cast<uint8_t>(crc), static_cast<uint8_t>(crc >> 8), static_cast<uint8_t>(crc >> 16),
            static_cast<uint8_t>(crc >> 24)};
  }

  PtyPeer m_pty;
  UniqueFd m_keepOpen;  // so that the module outlives the line's closing
};

// Calls `start` until it is accepted: a run ends with its report, and whoever heard that may be early.
inline bool StartNext(const std::function<bool()>& start) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!start()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

// How far a module lets the exchange come before it falls silent.
inline const std::map<std::string, std::function<void(ScriptedModule&)>> kSilences = {
    {"answer awaited", [](ScriptedModule& each) { each.Receive(3); }},
    {"image under way",
     [](ScriptedModule& each) {
       each.Receive(3);
       each.Block();
       each.Send({6});
     }},
    {"pre-loader check value awaited", [](ScriptedModule& each) { each.TakePreLoader(); }},
    {"confirmation awaited",
     [](ScriptedModule& each) {
       each.StartFlashLoader();
       each.ReceiveRequest();
     }},
};
