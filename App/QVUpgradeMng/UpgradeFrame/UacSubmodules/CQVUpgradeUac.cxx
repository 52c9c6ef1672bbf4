/// The USB audio chip's states are its base's; the transfer is XmodemSender's. Called by its base's thread.
#include "UpgradeFrame/UacSubmodules/CQVUpgradeUac.h"

#include <json/json.h>

#include "BSW/BasicFun/FileUtils.h"
#include "UpgradeFrame/UacSubmodules/XmodemSender.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

namespace {

/// Far beyond the chip's flash.
constexpr size_t kMaxImageBytes = 16U * 1024U * 1024U;

}  // namespace

const SocUpgraderBase::Kind CQVUpgradeUac::m_kindUac = {
    "CQVUpgradeUac", UP_UAC, kNoErrorCode, "UacIdle", "UacCheckUpgrade", "UacSuccess", "UacFail"};
const SocUpgraderBase::Table CQVUpgradeUac::m_MapStateMachineFunc = MakeTable(m_kindUac);

CQVUpgradeUac::CQVUpgradeUac() : SocUpgraderBase(m_kindUac, m_MapStateMachineFunc) {}

CQVUpgradeUac::~CQVUpgradeUac() {
  StopBeforeDestruction();
}

void CQVUpgradeUac::OnStopRequested() {
  SocUpgraderBase::OnStopRequested();
  m_line.Stop();
}

bool CQVUpgradeUac::_CheckUpgrade(const QVUpgradingInfo& info) {
  std::string image;
  if (!ReadFileToString(info.m_upgradeFilePath, kMaxImageBytes, image) || image.empty()) {
    m_strFault = info.m_upgradeFilePath + " is no usable image";
  } else if (!m_line.Open()) {
    m_strFault = std::string(UacLine::kDevice) + " cannot be opened";
  } else {
    LOGI("send %zu bytes of %s to %s", image.size(), info.m_upgradeFilePath.c_str(), UacLine::kDevice);
    const bool sent = _Transfer(image);
    m_line.Close();
    if (sent) return true;
  }
  if (!StopRequested()) LOGE("UAC upgrade failed: %s", m_strFault.c_str());
  return false;
}

bool CQVUpgradeUac::_Transfer(const std::string& image) {
  XmodemSender sender(m_line);
  const XmodemSender::Result result =
      sender.Send(image, [this](size_t done, size_t total) { _ReportSteps(done, total); });
  m_strFault = XmodemSender::Text(result);
  return result == XmodemSender::Result::Done;
}

void CQVUpgradeUac::_OnEnd(bool succeeded) {
  if (succeeded) return;
  Json::Value fault;
  fault["FaultMsg"] = "UAC upgrade failed: " + m_strFault;
  UpgradeIpcMsg::GetUpgradeIpc()->SendUIMsg(DeviceUpgradeUIIPC::EM_CODE_REP_MODULE_UPG_EXCEPTION, fault);
}
