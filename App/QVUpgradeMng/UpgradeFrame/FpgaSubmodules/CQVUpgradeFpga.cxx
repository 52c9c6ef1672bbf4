/// The FPGA's way to its new image: its driver is loaded, which then takes the image piece by piece. The
/// driver sets the size of a piece.
#include "UpgradeFrame/FpgaSubmodules/CQVUpgradeFpga.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradePackage/Parts.h"

namespace {

constexpr const char* kDriver = "/lib/modules/5.15.71-rt51/kernel/drivers/quorvalen/fpga_driver.ko";

class FpgaPayload final : public IPayload {
 public:
  Failure Install(const QVUpgradingInfo& info, const Steps& steps) override {
    LOGI("_FpgaCheckUpgrade");
    // The driver may be loaded already.
    if (QVUpgradeTool::ExecUnlessStopped(std::string("insmod ") + kDriver) != 0) {
      LOGE("insmod fpga fpga_driver.ko error");
    }
    LOGI("fpag bin file path:%s", info.m_upgradeFilePath.c_str());
    if (CThread::StopRequested()) return {Reason::Stopped, {}};
    const char* const device = Parts::Find(UP_FPGA)->target[Parts::kSideA];
    return CQVUpgradeFpga::_UpgardeFpga(info.m_upgradeFilePath, device, steps);
  }
  void Ended(const Failure& failure) override { LOGI("%s", failure ? "_FpgaFail" : "_FpgaSuccess"); }
};

using Clock = std::chrono::steady_clock;

constexpr size_t kPieceBytes = 4096;
constexpr char kErasedByte = static_cast<char>(0xFF);
/// Between two looks at the stop flag.
constexpr int kStopPollMs = 100;
constexpr uint32_t kBusyPauseMs = 10;

using Piece = std::array<char, kPieceBytes>;

bool ReadPiece(int image, Piece& piece, size_t size) {
  piece.fill(kErasedByte);
  for (size_t done = 0; done < size;) {
    const ssize_t got = RetryInterrupted([&] { return read(image, piece.data() + done, size - done); });
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

/// False at the deadline and when the calling thread is asked to stop.
bool WaitWritable(int device, Clock::time_point deadline) {
  while (!CThread::StopRequested() && Clock::now() < deadline) {
    pollfd watched = {device, POLLOUT, 0};
    if (poll(&watched, 1, kStopPollMs) > 0) return true;
  }
  return false;
}

bool WritePiece(int device, const char* data, size_t size, std::chrono::milliseconds time) {
  const Clock::time_point deadline = Clock::now() + time;
  while (size > 0) {
    if (!WaitWritable(device, deadline)) return false;
    const ssize_t written = RetryInterrupted([&] { return write(device, data, size); });
    if (written < 0 && errno == EAGAIN) {
      CThread::Pause(kBusyPauseMs);  // a driver without poll is always said to be writable
      continue;
    }
    if (written <= 0) return false;
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

Failure CopyPieces(int image, size_t imageBytes, int device, const IPayload::Steps& steps,
                   std::chrono::milliseconds pieceTime) {
  const size_t total = (imageBytes + kPieceBytes - 1) / kPieceBytes;
  Piece piece;
  for (size_t done = 0; done < total; ++done) {
    const size_t size = std::min(kPieceBytes, imageBytes - done * kPieceBytes);
    if (!ReadPiece(image, piece, size)) {
      LOGE("read fpga imgae failed.");
      return Fail(Reason::PartImage, "piece %zu of %zu cannot be read", done + 1, total);
    }
    if (!WritePiece(device, piece.data(), size, pieceTime)) {
      if (CThread::StopRequested()) return {Reason::Stopped, {}};
      LOGE("write flash failed.");
      return Fail(Reason::PartWrite, "piece %zu of %zu is not taken", done + 1, total);
    }
    steps(done + 1, total);
  }
  return {};
}

}  // namespace

const OneShotUpgrader::Kind CQVUpgradeFpga::m_kindFpga = {
    "CQVUpgradeFpga", UP_FPGA, kNoErrorCode, "FpgaIdle", "FpgaCheckUpgrade", "FpgaSuccess", "FpgaFail"};
const OneShotUpgrader::Table CQVUpgradeFpga::m_MapStateMachineFunc = MakeTable(m_kindFpga);

CQVUpgradeFpga::CQVUpgradeFpga()
    : OneShotUpgrader(m_kindFpga, m_MapStateMachineFunc, std::make_unique<FpgaPayload>()) {}

bool CQVUpgradeFpga::StartUpgrade() {
  LOGI("StartUpgrade CQVUpgradeFpga");
  return OneShotUpgrader::StartUpgrade();
}

Failure CQVUpgradeFpga::_UpgardeFpga(const std::string& path, const char* device,
                                     const IPayload::Steps& steps, std::chrono::milliseconds pieceTime) {
  const UniqueFd image = OpenRegularFile(path);
  struct stat info {};
  if (!image || fstat(image.Get(), &info) != 0) {
    LOGE("open %s failed", path.c_str());
    return Fail(Reason::PartImage, "%s cannot be opened", path.c_str());
  }
  const auto imageBytes = static_cast<size_t>(info.st_size);
  const auto pieces = static_cast<int>((imageBytes + kPieceBytes - 1) / kPieceBytes);
  LOGI("%s file size is : %ld ", path.c_str(), static_cast<long>(info.st_size));
  LOGI("%s image num is : %d ", path.c_str(), pieces);
  if (pieces == 0) return Fail(Reason::PartImage, "%s is empty", path.c_str());
  // Non-blocking where the driver can: waiting is WaitWritable's.
  const UniqueFd flash(open(device, O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!flash) {
    LOGE("open %s failed.", device);
    return Fail(Reason::PartDevice, "%s cannot be opened", device);
  }
  LOGI("send to fpga start packet_cout:%d fpga_total_num:%d", 0, pieces);
  Failure failure = CopyPieces(image.Get(), imageBytes, flash.Get(), steps, pieceTime);
  if (!failure) LOGI("send to fpga end");
  return failure;
}
