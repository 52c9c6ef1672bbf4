/// The copy of an FPGA image to its device. The driver sets the size of a piece.
#include "UpgradeFrame/FpgaSubmodules/FpgaImage.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/UniqueFd.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"

namespace FpgaImage {

namespace {

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

Failure CopyPieces(int image, size_t imageBytes, int device, const Progress& progress,
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
    progress(done + 1, total);
  }
  return {};
}

}  // namespace

Failure Write(const std::string& imagePath, const char* devicePath, const Progress& progress,
              std::chrono::milliseconds pieceTime) {
  const UniqueFd image = OpenRegularFile(imagePath);
  struct stat info {};
  if (!image || fstat(image.Get(), &info) != 0) {
    LOGE("open %s failed", imagePath.c_str());
    return Fail(Reason::PartImage, "%s cannot be opened", imagePath.c_str());
  }
  const auto imageBytes = static_cast<size_t>(info.st_size);
  const auto pieces = static_cast<int>((imageBytes + kPieceBytes - 1) / kPieceBytes);
  LOGI("%s file size is : %ld ", imagePath.c_str(), static_cast<long>(info.st_size));
  LOGI("%s image num is : %d ", imagePath.c_str(), pieces);
  if (pieces == 0) return Fail(Reason::PartImage, "%s is empty", imagePath.c_str());
  // Non-blocking where the driver can: waiting is WaitWritable's.
  const UniqueFd device(open(devicePath, O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!device) {
    LOGE("open %s failed.", devicePath);
    return Fail(Reason::PartDevice, "%s cannot be opened", devicePath);
  }
  LOGI("send to fpga start packet_cout:%d fpga_total_num:%d", 0, pieces);
  Failure failure = CopyPieces(image.Get(), imageBytes, device.Get(), progress, pieceTime);
  if (!failure) LOGI("send to fpga end");
  return failure;
}

}  // namespace FpgaImage
