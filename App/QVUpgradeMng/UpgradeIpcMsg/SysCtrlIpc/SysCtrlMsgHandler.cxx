/// The controller's reports, one handler each. What a version report leads to is the same for all chips: a
/// difference from the device's record means that a chip was changed behind the daemon's back, or that it
/// could not be read before. Log and fault texts are read by service and shown on the panel.
#include "UpgradeIpcMsg/SysCtrlIpc/SysCtrlMsgHandler.h"

#include <map>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"

namespace {

/// Handles the "Data" of one command; false when it is unusable.
using Handler = bool(ISysCtrlReports& reports, const Json::Value& data);
Handler _HandleRepFpgaVer;
Handler _HandleRepRtxVer;
Handler _HandleRepBattery;
Handler _HandleRepClockStatus;
Handler _HandleReqVer;
Handler _HandleRepUacVer;

void _HandleGengericReply(const Json::Value& data);
void LogUnusableData(const Json::Value& data);

}  // namespace

bool SysCtrlMsgHandler::Handle(ISysCtrlReports* reports, const Json::Value& message) {
  static const std::map<int, Handler*> kHandlers = {
      {SysCtrlProtocol::EM_CODE_SYS_REP_FPGA_VER, _HandleRepFpgaVer},
      {SysCtrlProtocol::EM_CODE_SYS_REP_RTX_VER, _HandleRepRtxVer},
      {SysCtrlProtocol::EM_CODE_SYS_REP_BATTERY, _HandleRepBattery},
      {SysCtrlProtocol::EM_CODE_SYS_REP_CLOCK_SYNC_STATUS, _HandleRepClockStatus},
      {SysCtrlProtocol::EM_CODE_SYS_REQ_VER, _HandleReqVer},
      {SysCtrlProtocol::EM_CODE_SYS_REP_UAC_VER, _HandleRepUacVer},
  };
  int cmd = 0;
  if (!JsonUtils::GetInt(message, "Cmd", cmd) || !message.isMember("Data")) {
    LOGE("Error content of msg! ErrVal:%s", JsonUtils::ToStyledText(message).c_str());
    return false;
  }
  const auto handler = kHandlers.find(cmd);
  if (handler == kHandlers.end()) {
    LOGE("Unsupport cmd! ErrVal:%d", cmd);
  } else if (reports == nullptr) {
    LOGW("nobody takes the controller's report %d", cmd);
  } else if (!handler->second(*reports, message["Data"])) {
    LogUnusableData(message["Data"]);
  }
  return true;
}

void SysCtrlMsgHandler::_ParseReply(const std::string& text) {
  Json::Value reply;
  std::string error;
  int cmd = 0;
  if (!JsonUtils::Parse(text, reply, error)) {
    LOGE("_ParseReply convert json failed.");
  } else if (!JsonUtils::GetInt(reply, "Cmd", cmd) || !reply.isMember("Data")) {
    LOGE("Error Json member!ErrVal:%s", JsonUtils::ToStyledText(reply).c_str());
  } else if (cmd != SysCtrlProtocol::EM_CODE_REQ_PAIR) {
    LOGE("Cmd unsupport!ErrVal:%d", cmd);
  } else {
    _HandleGengericReply(reply["Data"]);
  }
}

namespace {

/// A chip, and what the log says of it.
struct ChipTexts {
  UPGRADETYPE chip;
  const char* firstVersion;  ///< none was known before
  const char* completed;
};
constexpr ChipTexts kFpga = {UP_FPGA,
                             "########## Uart of FPGA might have except during last starup! ##########",
                             "FPGA version update completed"};
constexpr ChipTexts kRtx = {UP_RTX, "########## Uart of RTX might have except during last starup! ##########",
                            "RTX version update completed"};
constexpr ChipTexts kUac = {UP_UAC, "########## Uart of UAC might have except during last starup! ##########",
                            "UAC version update completed"};

/// Handles the version under `key`; false when it is none. `fault` begins the text of the fault message, and
/// the two versions follow.
bool CheckVersion(ISysCtrlReports& reports, const ChipTexts& texts, const Json::Value& data, const char* key,
                  const std::string& fault) {
  std::string version;
  if (!JsonUtils::GetString(data, key, version) || !IsVersionText(version)) return false;
  const std::string stored = reports.StoredVersion(texts.chip);
  if (version == stored) {
    LOGW("Same version, no need update.");
    return true;
  }
  if (stored.empty()) {
    LOGW("%s", texts.firstVersion);
  } else {
    reports.ReportFault(fault + stored + ", read:" + version);
  }
  reports.StoreVersion(texts.chip, version);
  reports.SendVersionReport();
  LOGI("%s", texts.completed);
  return true;
}

bool _HandleRepFpgaVer(ISysCtrlReports& reports, const Json::Value& data) {
  return CheckVersion(reports, kFpga, data, "FpgaVer", "Different FPGA version!Strored:");
}

bool _HandleRepRtxVer(ISysCtrlReports& reports, const Json::Value& data) {
  int index = 0;
  return JsonUtils::GetInt(data, "RtxIndex", index) &&
         CheckVersion(reports, kRtx, data, "RtxVer",
                      "Different RTX" + std::to_string(index) + " version!Strored:");
}

bool _HandleRepUacVer(ISysCtrlReports& reports, const Json::Value& data) {
  return CheckVersion(reports, kUac, data, "UacVer", "Different UAC version!Strored:");
}

bool _HandleRepBattery(ISysCtrlReports& reports, const Json::Value& data) {
  int level = 0;
  if (!JsonUtils::GetInt(data, "Battery", level)) return false;
  LOGI("Get new battery:%d", level);
  reports.OnBattery(level);
  return true;
}

bool _HandleRepClockStatus(ISysCtrlReports& reports, const Json::Value& data) {
  int status = 0;
  if (!JsonUtils::GetInt(data, "Status", status)) return false;
  LOGI("Get new Status:%d", status);
  reports.OnClockStatus(status != 0);
  return true;
}

bool _HandleReqVer(ISysCtrlReports& reports, const Json::Value& /*data*/) {
  reports.SendVersionReport();
  return true;
}

void _HandleGengericReply(const Json::Value& data) {
  int errorCode = SysCtrlProtocol::EM_ERR_CODE_SUCCESS;
  std::string errorMsg;
  const bool hasCode = JsonUtils::GetInt(data, "ErrorCode", errorCode);
  if (!JsonUtils::GetString(data, "ErrorMsg", errorMsg) && !hasCode) {
    LogUnusableData(data);
  } else if (errorCode != SysCtrlProtocol::EM_ERR_CODE_SUCCESS) {
    LOGE("SysCtrl reply an error!ErrCode:%d, ErrMsg:%s", errorCode, Printable(errorMsg).c_str());
  }
}

void LogUnusableData(const Json::Value& data) {
  LOGE("Error content of member 'Data'!ErrVal:%s", JsonUtils::ToStyledText(data).c_str());
}

}  // namespace
