/// The image's way into the USB audio chip: the line to its boot loader, and what ends there. The transfer
/// itself is XmodemSender's.
#include "UpgradeFrame/UacSubmodules/CQVUpgradeUac.h"

#include <json/json.h>

#include <deque>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Serial/SerialPort.h"
#include "BSW/Serial/XmodemSender.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePackage/Parts.h"
#include "common/Condition.h"

namespace {

/// Far beyond the chip's flash.
constexpr size_t kMaxImageBytes = 16U * 1024U * 1024U;
constexpr uint32_t kMaxChunkBytes = 1024;
constexpr const char* kDevice = Parts::Find(UP_UAC)->target[Parts::kSideA];

/// The serial line to the chip's boot loader: the receive thread queues the bytes, the upgrader's thread
/// takes them. That thread calls everything but Stop.
class UacLine final : public IXmodemLine {
 public:
  UacLine() : m_port("UAC", kMaxChunkBytes) {
    m_port.RegisterUartEventCallback([this](const void* data, short length) { return _Queue(data, length); });
  }

  /// At 115200 8N1, a new record's settings. False, logged, when the device cannot be opened.
  bool Open() {
    UART_MNG_INFO_S info;
    info.SetDevName(kDevice);
    return m_port.CreateSerial(&info);
  }
  void Close() { m_port.DestroySerial(); }

  int Receive(std::chrono::milliseconds time) override {
    const CLock lock(m_mutex);
    m_cond.WaitFor(m_mutex, time, [this]() REQUIRES(m_mutex) { return m_bStopped || !m_received.empty(); });
    if (m_bStopped) return kStopped;
    if (m_received.empty()) return kSilence;
    const int byte = m_received.front();
    m_received.pop_front();
    return byte;
  }
  void Purge() override {
    const CLock lock(m_mutex);
    m_received.clear();
  }
  bool Send(const uint8_t* data, size_t size) override {
    const auto length = static_cast<int>(size);
    return m_port.SendFrame(reinterpret_cast<const char*>(data), length) == length;
  }

  /// Ends a Receive under way and every later one. Any thread.
  void Stop() {
    const CLock lock(m_mutex);
    m_bStopped = true;
    m_cond.NotifyAll();
  }

 private:
  int _Queue(const void* data, short length) {
    const auto* const bytes = static_cast<const uint8_t*>(data);
    const CLock lock(m_mutex);
    m_received.insert(m_received.end(), bytes, bytes + length);
    m_cond.NotifyAll();
    return 0;
  }

  CMutex m_mutex;
  CCondition m_cond;  ///< one of the next two changed
  std::deque<uint8_t> m_received GUARDED_BY(m_mutex);
  bool m_bStopped GUARDED_BY(m_mutex) = false;
  SerialPort m_port;  ///< last, so that its thread ends before the queue does
};

class UacPayload final : public IPayload {
 public:
  Failure Install(const QVUpgradingInfo& info, const Steps& steps) override;
  void Ended(const Failure& failure) override;
  void Stop() override { m_line.Stop(); }

 private:
  UacLine m_line;
};

Failure UacPayload::Install(const QVUpgradingInfo& info, const Steps& steps) {
  const std::string& path = info.m_upgradeFilePath;
  std::string image;
  if (!ReadFileToString(path, kMaxImageBytes, image) || image.empty()) {
    return Fail(Reason::PartImage, "UAC upgrade failed: %s is no usable image", path.c_str());
  }
  if (!m_line.Open()) {
    return Fail(Reason::PartDevice, "UAC upgrade failed: %s cannot be opened", kDevice);
  }
  LOGI("send %zu bytes of %s to %s", image.size(), path.c_str(), kDevice);
  using Result = XmodemSender::Result;
  const Result result = XmodemSender(m_line).Send(image, steps);
  m_line.Close();
  if (result == Result::Done) return {};
  if (result == Result::Stopped) return {Reason::Stopped, {}};
  return Fail(result == Result::LineDown ? Reason::PartWrite : Reason::PartAnswer, "UAC upgrade failed: %s",
              XmodemSender::Text(result));
}

void UacPayload::Ended(const Failure& failure) {
  if (!failure) return;
  Json::Value fault;
  fault["FaultMsg"] = failure.context;
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIMsg(DeviceUpgradeUIIPC::EM_CODE_REP_MODULE_UPG_EXCEPTION, fault);
}

}  // namespace

const OneShotUpgrader::Kind CQVUpgradeUac::m_kindUac = {
    "CQVUpgradeUac", UP_UAC, kNoErrorCode, "UacIdle", "UacCheckUpgrade", "UacSuccess", "UacFail"};
const OneShotUpgrader::Table CQVUpgradeUac::m_MapStateMachineFunc = MakeTable(m_kindUac);

CQVUpgradeUac::CQVUpgradeUac()
    : OneShotUpgrader(m_kindUac, m_MapStateMachineFunc, std::make_unique<UacPayload>()) {}
