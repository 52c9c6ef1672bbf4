// The exchange with radio modules against a scripted one: what ends it, how soon, and what is left behind.
// Whole upgrades over a line of real speed are seen on a virtual station.
#include "UpgradeFrame/RtxSubmodules/RtxExchange.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <functional>
#include <map>

#include "../PlatformSDK/TempDirectory.h"
#include "../Serial/SerialTestKit.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"

namespace {

constexpr int kLongWait = 20'000;  // no test lets it run out
constexpr int kShortWait = 2'000;
constexpr double kAtOnce = 2.5;  // s; the shortest wait that could hold something up lasts 3 s
constexpr size_t kImageBytes = 3000;

// A module at the other end of a pty, told step by step what to do.
class ScriptedModule {
 public:
  ScriptedModule() : m_image(kImageBytes, 0x11), m_keepOpen(open(m_pty.Device().c_str(), O_RDWR | O_NOCTTY)) {
    m_image.back() = 0x42;  // XOR of all: 0x11 ^ 0x42
  }

  const std::string& Device() const { return m_pty.Device(); }
  const Bytes& Image() const { return m_image; }
  void Send(const Bytes& bytes) const { m_pty.Send(bytes); }
  Bytes Receive(size_t count) const { return m_pty.Receive(count); }
  void Unplug() { m_pty.Unplug(); }
  // From now on the line takes nothing.
  void Block() const { EXPECT_EQ(tcflow(m_keepOpen.Get(), TCOOFF), 0); }

  void TakePreLoader() const {
    EXPECT_EQ(Receive(3), Bytes({1, kImageBytes & 0xFF, kImageBytes >> 8}));
    Send({6});
    EXPECT_EQ(Receive(kImageBytes), m_image);
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
    EXPECT_EQ(Receive(kImageBytes), m_image);
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
  Bytes m_image;
  UniqueFd m_keepOpen;  // so that the module outlives the line's closing
};

// The exchange of a user that is told its modules and keeps what it hears.
class Upgrader : public RtxExchange {
 public:
  Upgrader(int waitTime, std::string directory, std::vector<const ScriptedModule*> modules)
      : RtxExchange("TestRtx", "TestRtx", waitTime),
        m_dir(std::move(directory)),
        m_modules(std::move(modules)) {
    EXPECT_TRUE(_OpenExchange());
  }
  ~Upgrader() override { Close(); }

  bool Start() {
    m_iModule = 0;
    return _StartRun(m_modules[0]->Device().c_str());
  }
  void Abort() { _AbortRun(); }
  bool Close() { return _CloseExchange(); }

  Inbox<bool> ends;
  Inbox<bool> boots;
  Inbox<std::pair<size_t, size_t>> chunks;
  std::atomic<int> failures{0};

 private:
  bool _PrepareFiles() override { return _SetFiles(m_dir); }
  void _EnterBoot() override {
    m_modules[m_iModule]->Send({2});
    boots.Put(true);
  }
  int _Module() const override { return static_cast<int>(m_iModule) + 1; }
  void _ChunkProgrammed(size_t done, size_t total) override { chunks.Put({done, total}); }
  const char* _ModuleSucceeded() override {
    return ++m_iModule < m_modules.size() ? m_modules[m_iModule]->Device().c_str() : nullptr;
  }
  void _ModuleFailed() override { ++failures; }
  void _RunEnded(bool success) override { ends.Put(success); }

  const std::string m_dir;
  const std::vector<const ScriptedModule*> m_modules;
  std::atomic<size_t> m_iModule{0};
};

class RtxExchangeTest : public testing::Test {
 protected:
  RtxExchangeTest() {
    const std::string image(module.Image().begin(), module.Image().end());
    WriteText(files / "rtx-pre-loader.bin", image);
    WriteText(files / "rtx-flash-loader.bin", image);
    WriteText(files / "._rtx.spihex", "no firmware");
    WriteText(files / "rtx.spihex", ":03100000010203E7\n:0120000004DB\n:00000001FF\n");
  }

  TempDirectory files;
  ScriptedModule module;
};

TEST_F(RtxExchangeTest, BothModulesGetTheFirmwareThatWasReadOnce) {
  ScriptedModule second;
  Upgrader upgrader(kLongWait, files.Path(), {&module, &second});
  ASSERT_TRUE(upgrader.Start());
  EXPECT_FALSE(upgrader.Start()) << "one run at a time";
  module.StartFlashLoader();
  module.ServeFlash(1);
  std::filesystem::remove(files / "rtx.spihex");
  module.ServeFlash(1);
  second.StartFlashLoader();
  second.ServeFlash(2);
  EXPECT_EQ(upgrader.ends.Wait(1), std::vector<bool>({true}));
  const auto chunks = upgrader.chunks.Wait(4);
  EXPECT_EQ(chunks, (std::vector<std::pair<size_t, size_t>>({{1, 2}, {2, 2}, {1, 2}, {2, 2}})));
  for (ScriptedModule* const each : {&module, &second}) {
    EXPECT_EQ(each->flash.at(0x1000), 1);
    EXPECT_EQ(each->flash.at(0x1002), 3);
    EXPECT_EQ(each->flash.at(0x1003), 0xFF);
    EXPECT_EQ(each->flash.at(0x2000), 4);
  }
}

// Each failure ends the run once, and the next one begins as if there had been none.
TEST_F(RtxExchangeTest, RefusedRunFailsOnceAndLeavesNothingBehind) {
  const std::map<std::string, std::function<void(ScriptedModule&)>> scripts = {
      {"silent", [](ScriptedModule& each) { each.Receive(3); }},
      {"pre-loader check value is wrong",
       [](ScriptedModule& each) {
         each.TakePreLoader();
         each.Send({ScriptedModule::kCheck ^ 1});  // an echo of it would be the next run's first byte
       }},
      {"flash-loader check value is wrong",
       [](ScriptedModule& each) {
         each.TakePreLoader();
         each.ConfirmPreLoader();
         each.ChangeBaudRate();
         each.TakeFlashLoader();
         each.Send({ScriptedModule::kCheck ^ 1});
       }},
      {"confirmation is longer than it says",
       [](ScriptedModule& each) {
         each.StartFlashLoader();
         each.ReceiveRequest();
         each.Send(Rtx::PackFlPacket({14, 1, 2, 3}) + Bytes({0}));
       }},
      {"confirmation has too little data",
       [](ScriptedModule& each) {
         each.StartFlashLoader();
         each.ReceiveRequest();
         each.Confirm({14, 1, 2});
       }},
      {"flash holds something else",
       [](ScriptedModule& each) {
         each.StartFlashLoader();
         each.damaged = true;
         each.ServeFlash(1);
       }},
  };
  Upgrader upgrader(kShortWait, files.Path(), {&module});
  size_t runs = 0;
  for (const auto& [name, script] : scripts) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(upgrader.Start());
    script(module);
    ++runs;
    EXPECT_EQ(upgrader.ends.Wait(runs), std::vector<bool>(runs, false));
    EXPECT_EQ(upgrader.failures, static_cast<int>(runs));
  }
}

TEST_F(RtxExchangeTest, UnpluggedModuleFailsAndStaysAway) {
  Upgrader upgrader(kShortWait, files.Path(), {&module});
  ASSERT_TRUE(upgrader.Start());
  module.StartFlashLoader();
  module.ReceiveRequest();
  upgrader.boots.Wait(1);
  module.Unplug();
  upgrader.ends.Wait(1);
  ASSERT_TRUE(upgrader.Start());
  EXPECT_EQ(upgrader.ends.Wait(2), std::vector<bool>({false, false}));
  EXPECT_EQ(upgrader.boots.Wait(1).size(), 1U) << "nothing is asked of a module that cannot be reached";
}

TEST_F(RtxExchangeTest, UnusableFilesFailBeforeTheModuleIsTouched) {
  Upgrader upgrader(kLongWait, "/nonexistent", {&module});
  ASSERT_TRUE(upgrader.Start());
  EXPECT_EQ(upgrader.ends.Wait(1), std::vector<bool>({false}));
  EXPECT_TRUE(upgrader.boots.Wait(0).empty());
}

// How far a module lets the exchange come before it falls silent.
const std::map<std::string, std::function<void(ScriptedModule&)>> kSilences = {
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

TEST_F(RtxExchangeTest, StopEndsEveryWaitAtOnceAndReportsNothing) {
  for (const auto& [name, script] : kSilences) {
    SCOPED_TRACE(name);
    ScriptedModule silent;
    Upgrader upgrader(kLongWait, files.Path(), {&silent});
    ASSERT_TRUE(upgrader.Start());
    script(silent);
    EXPECT_LT(SecondsOf([&] { EXPECT_TRUE(upgrader.Close()); }), kAtOnce);
    EXPECT_TRUE(upgrader.Close());
    EXPECT_TRUE(upgrader.ends.Wait(0).empty());
  }
}

TEST_F(RtxExchangeTest, AbortFailsTheRunAtOnceAndAnotherMayFollow) {
  for (const auto& [name, script] : kSilences) {
    SCOPED_TRACE(name);
    ScriptedModule silent;
    Upgrader upgrader(kLongWait, files.Path(), {&silent});
    ASSERT_TRUE(upgrader.Start());
    script(silent);
    EXPECT_LT(SecondsOf([&] {
                upgrader.Abort();
                EXPECT_EQ(upgrader.ends.Wait(1), std::vector<bool>({false}));
              }),
              kAtOnce);
    ASSERT_TRUE(upgrader.Start());
    upgrader.boots.Wait(2);
  }
}

}  // namespace
