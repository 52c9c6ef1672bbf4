/// The image's way into the signal processor. Its boot loader, at 115200 baud, waits for
///
///   the length of the image, 4 bytes, least significant first
///   the image, 256 bytes at a time, at last what is left
///
/// and answers each of these with ACK, or with NAK when it does not take it. With the last ACK the image is
/// in its flash.
#include "UpgradeFrame/DspSubmodules/CQVUpgradeDsp.h"

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "BSW/Serial/CSerial.h"
#include "UpgradePackage/Parts.h"

namespace {

constexpr const char* kDevice = Parts::Find(UP_DSP)->target[Parts::kSideA];
/// Far beyond the chip's flash.
constexpr size_t kMaxImageBytes = 16U * 1024U * 1024U;
constexpr size_t kBlockBytes = 256;
constexpr char kAck = 0x06;
/// More than the chip needs to erase a sector.
constexpr int kAnswerMs = 1000;

class DspPayload final : public IPayload {
 public:
  Failure Install(const QVUpgradingInfo& info, const Steps& steps) override;
  void Stop() override { m_line.Interrupt(); }

 private:
  bool _Open();
  Failure _Transfer(const std::string& image, const Steps& steps);
  Failure _SendUntilAck(const std::string& bytes, const std::string& what);

  CSerial m_line;
};

Failure DspPayload::Install(const QVUpgradingInfo& info, const Steps& steps) {
  const std::string& path = info.m_upgradeFilePath;
  std::string image;
  if (!ReadFileToString(path, kMaxImageBytes, image) || image.empty()) {
    return Fail(Reason::PartImage, "%s is no usable image", path.c_str());
  }
  if (!_Open()) return Fail(Reason::PartDevice, "%s cannot be opened", kDevice);
  LOGI("send %zu bytes of %s to %s", image.size(), path.c_str(), kDevice);
  Failure failure = _Transfer(image, steps);
  m_line.Close();
  return failure && CThread::StopRequested() ? Failure{Reason::Stopped, {}} : failure;
}

Failure DspPayload::_Transfer(const std::string& image, const Steps& steps) {
  std::string length;
  for (size_t rest = image.size(); length.size() < 4; rest >>= 8U) length += static_cast<char>(rest & 0xFFU);
  if (Failure failure = _SendUntilAck(length, "the length")) return failure;

  const size_t blocks = (image.size() + kBlockBytes - 1) / kBlockBytes;
  for (size_t done = 0; done < blocks; ++done) {
    const std::string what = "block " + std::to_string(done + 1) + " of " + std::to_string(blocks);
    if (Failure failure = _SendUntilAck(image.substr(done * kBlockBytes, kBlockBytes), what)) return failure;
    steps(done + 1, blocks);
  }
  return {};
}

/// A stop ends the wait; one that came before the line was open is seen here.
Failure DspPayload::_SendUntilAck(const std::string& bytes, const std::string& what) {
  if (CThread::StopRequested()) return {Reason::Stopped, {}};
  const auto size = static_cast<int>(bytes.size());
  if (m_line.Write(bytes.data(), size) != size) {
    return Fail(Reason::PartWrite, "%s does not go out", what.c_str());
  }
  char answer = 0;
  const int count = m_line.Read(&answer, 1, false, kAnswerMs);
  if (count < 1) return Fail(Reason::PartAnswer, "no answer to %s", what.c_str());
  if (answer != kAck) return Fail(Reason::PartAnswer, "%s is declined", what.c_str());
  return {};
}

bool DspPayload::_Open() {
  UART_MNG_INFO_S info;  // as it is: 115200 baud, eight bits, no parity
  info.SetDevName(kDevice);
  return m_line.Open(&info, kAnswerMs);
}

}  // namespace

const OneShotUpgrader::Kind CQVUpgradeDsp::m_kindDsp = {
    "CQVUpgradeDsp", UP_DSP, kNoErrorCode, "DspIdle", "DspCheckUpgrade", "DspSuccess", "DspFail"};
const OneShotUpgrader::Table CQVUpgradeDsp::m_MapStateMachineFunc = MakeTable(m_kindDsp);

CQVUpgradeDsp::CQVUpgradeDsp()
    : OneShotUpgrader(m_kindDsp, m_MapStateMachineFunc, std::make_unique<DspPayload>()) {}
