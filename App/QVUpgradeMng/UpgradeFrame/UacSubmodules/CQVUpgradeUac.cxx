/// The image's way into the USB audio chip; the transfer itself is XmodemSender's.
#include "UpgradeFrame/UacSubmodules/CQVUpgradeUac.h"

#include <json/json.h>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Serial/XmodemSender.h"
#include "UpgradeFrame/UacSubmodules/UacLine.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

namespace {

/// Far beyond the chip's flash.
constexpr size_t kMaxImageBytes = 16U * 1024U * 1024U;

class UacPayload final : public IPayload {
 public:
  Failure Install(const QVUpgradingInfo& info, const Steps& steps) override;
  void Ended(const Failure& failure) override;
  void Stop() override { m_line.Stop(); }

 private:
  Failure _Transfer(const std::string& image, const Steps& steps);

  UacLine m_line;
};

Failure UacPayload::Install(const QVUpgradingInfo& info, const Steps& steps) {
  const std::string& path = info.m_upgradeFilePath;
  std::string image;
  if (!ReadFileToString(path, kMaxImageBytes, image) || image.empty()) {
    return Fail(Reason::PartImage, "UAC upgrade failed: %s is no usable image", path.c_str());
  }
  if (!m_line.Open()) {
    return Fail(Reason::PartDevice, "UAC upgrade failed: %s cannot be opened", UacLine::kDevice);
  }
  LOGI("send %zu bytes of %s to %s", image.size(), path.c_str(), UacLine::kDevice);
  Failure failure = _Transfer(image, steps);
  m_line.Close();
  return failure;
}

Failure UacPayload::_Transfer(const std::string& image, const Steps& steps) {
  using Result = XmodemSender::Result;
  const Result result = XmodemSender(m_line).Send(image, steps);
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
