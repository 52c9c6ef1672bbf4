// The copy of an FPGA image to its device: whole, bounded, ended by a stop. Files and FIFOs stand for the
// device.
#include "UpgradeFrame/FpgaSubmodules/CQVUpgradeFpga.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "../PlatformSDK/TempDirectory.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "BSW/MultiTask/CTaskQue.h"

namespace {

using Clock = std::chrono::steady_clock;

class FpgaImageTest : public testing::Test {
 protected:
  FpgaImageTest() { mkfifo(m_fifo.c_str(), 0600); }

  // An image of `bytes` bytes, none like its neighbour.
  std::string MakeImage(size_t bytes) {
    std::string content(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i) content[i] = static_cast<char>(i ^ (i >> 8U));
    WriteText(m_image, content);
    return content;
  }
  Reason Write(const std::string& device, std::chrono::milliseconds time = CQVUpgradeFpga::kPieceTime) {
    m_steps.clear();
    const auto progress = [this](size_t done, size_t total) { m_steps.emplace_back(done, total); };
    return CQVUpgradeFpga::_UpgardeFpga(m_image, device.c_str(), progress, time).reason;
  }

  TempDirectory m_directory;
  const std::string m_image = m_directory / "fpga.bin";
  const std::string m_fifo = m_directory / "fifo";
  std::vector<std::pair<size_t, size_t>> m_steps;
};

TEST_F(FpgaImageTest, WritesAllPiecesAndNoMore) {
  for (const size_t bytes : {1U, 8192U, 8193U}) {
    const std::string device = m_directory / "device";
    WriteText(device, "");
    const std::string image = MakeImage(bytes);
    EXPECT_EQ(Write(device), Reason::None);
    EXPECT_TRUE(ReadText(device) == image) << bytes;
    const size_t pieces = bytes == 1 ? 1 : bytes == 8192 ? 2 : 3;
    EXPECT_EQ(m_steps.size(), pieces);
    EXPECT_EQ(m_steps.back(), std::make_pair(pieces, pieces));
  }
}

TEST_F(FpgaImageTest, WaitsForASlowDevice) {
  const std::string image = MakeImage(300000);
  const UniqueFd reader(open(m_fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string received;
  std::atomic<bool> isOver{false};
  std::thread device([&] {
    std::vector<char> buffer(5000);
    while (received.size() < image.size()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      const ssize_t got = read(reader.Get(), buffer.data(), buffer.size());
      if (got == 0 && isOver) break;  // before it opens, a writer looks like one that has closed
      if (got > 0) received.append(buffer.data(), static_cast<size_t>(got));
    }
  });
  EXPECT_EQ(Write(m_fifo), Reason::None);
  isOver = true;
  device.join();
  EXPECT_TRUE(received == image);
}

TEST_F(FpgaImageTest, FailsWithoutImageOrDevice) {
  EXPECT_EQ(Write(m_directory / "device"), Reason::PartImage);
  MakeImage(1);
  EXPECT_EQ(Write(m_directory / "device"), Reason::PartDevice);
  EXPECT_FALSE(std::filesystem::exists(m_directory / "device")) << "a device is never made";
  EXPECT_EQ(Write("/dev/full"), Reason::PartWrite);
  MakeImage(0);
  EXPECT_EQ(Write("/dev/null"), Reason::PartImage) << "an empty image is no upgrade";
  EXPECT_TRUE(m_steps.empty());
}

TEST_F(FpgaImageTest, GivesUpOnADeviceThatTakesNothing) {
  MakeImage(1000000);
  const UniqueFd silent(open(m_fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const auto begin = Clock::now();
  EXPECT_EQ(Write(m_fifo, std::chrono::milliseconds(300)), Reason::PartWrite);
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(300));
}

TEST_F(FpgaImageTest, EndsAtTheStop) {
  MakeImage(1000000);
  const UniqueFd silent(open(m_fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  CTaskQue upgrader("upgrader");
  Reason reason = Reason::None;
  ASSERT_TRUE(upgrader.Post([&] { reason = Write(m_fifo, std::chrono::minutes(1)); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const auto begin = Clock::now();
  EXPECT_TRUE(upgrader.DestroyThread(true, true));
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
  EXPECT_EQ(reason, Reason::Stopped);
}

}  // namespace
