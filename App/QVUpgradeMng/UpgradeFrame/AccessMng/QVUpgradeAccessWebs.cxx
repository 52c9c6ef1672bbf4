/// Web requests and their answers. The web server relies on the names, codes and order of the checks here.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessWebs.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Dbus/CDbusHandler.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/AccessMng/PackageName.h"
#include "UpgradeFrame/AccessMng/PackageSteps.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

namespace {

constexpr const char* kObject = "/org/Upgread/object";
constexpr const char* kInterface = "org.UpgradeWebRequest_Method.interface";
constexpr const char* kMethod = "upgrade_web_dbus_method_notify";

constexpr const char* kRequestInterfaceName = "UpgradeRequest";
constexpr int kCmdUpgrade = 100;

constexpr mode_t kDownloadMode = 0755;

/// True for an absolute path without empty, "." or ".." parts: it means what it says.
bool IsPlainAbsolutePath(const std::string& path) {
  if (path.empty() || path.front() != '/') return false;
  const std::vector<std::string> parts = Split(path.substr(1), '/');
  return std::all_of(parts.begin(), parts.end(),
                     [](const std::string& part) { return IsPlainFileName(part); });
}

}  // namespace

std::atomic<QVUpgradeAccessWebs*> QVUpgradeAccessWebs::m_pListening{nullptr};

QVUpgradeAccessWebs::QVUpgradeAccessWebs() : QVUpgradeAccessSource("AccessWebs", UP_WEBS) {}

QVUpgradeAccessWebs::~QVUpgradeAccessWebs() {
  CleanUp();
}

bool QVUpgradeAccessWebs::_Listen() {
  if (!XCreateFullPathDir(UpgradePaths::kDownload, kDownloadMode)) {
    LOGE("cannot create %s: %s", UpgradePaths::kDownload, std::strerror(errno));
  }
  m_pListening = this;
  const auto onRequest = [](const std::string& text) {
    QVUpgradeAccessWebs* listening = m_pListening;
    return listening != nullptr ? listening->HandleRequest(text) : std::string();
  };
  return CDbusHandler::instance()->RegisteredServices(kObject, kInterface, kMethod, onRequest, false);
}

void QVUpgradeAccessWebs::_Unlisten() {
  CDbusHandler::instance()->UnRegisteredServices(kObject, kInterface, kMethod);
  m_pListening = nullptr;
}

std::string QVUpgradeAccessWebs::HandleRequest(const std::string& text) {
  LOGI("webRequest:%s", text.c_str());
  IpcEnvelope::Request request;
  const Answer answer = _Accept(text, request);
  Json::Value payload;
  if (answer.code != REPLY_ACCEPTED) payload["ErrorMsg"] = answer.message;
  std::string reply =
      JsonUtils::ToCompactText(IpcEnvelope::Make(kRequestInterfaceName, IpcEnvelope::kTypeResponse,
                                                 request.snr, request.cmd, answer.code, std::move(payload)));
  LOGI("webReply:%s", reply.c_str());
  return reply;
}

QVUpgradeAccessWebs::Answer QVUpgradeAccessWebs::_Accept(const std::string& text,
                                                         IpcEnvelope::Request& request) {
  Upload upload;
  if (!IpcEnvelope::ParseRequest(text, kRequestInterfaceName, request) || request.cmd != kCmdUpgrade ||
      !_ParseUpload(request.propertyData, upload)) {
    return {REPLY_MALFORMED, "malformed request"};
  }
  if (!_Claim()) return {REPLY_BUSY, "an upgrade is under way"};

  const bool batteryLow = _RefuseLowBattery();
  if (batteryLow || !PackageSteps::IsRegularFileItself(upload.archive)) {
    QVUpgradeAccessFrame::getAccessFrame()->ReleaseClaim();
    return {REPLY_REFUSED, batteryLow ? "battery too low" : "no such package file"};
  }
  UpgradeIpcMsg::GetUpgradeIpc()->SwitchWebReport(true);
  const std::lock_guard<std::mutex> lock(m_queueNextMutex);
  m_newUpload = std::move(upload);
  m_stateCond.notify_all();
  return {REPLY_ACCEPTED, ""};
}

bool QVUpgradeAccessWebs::_ParseUpload(const Json::Value& propertyData, Upload& upload) {
  std::string fileName;
  if (!JsonUtils::GetString(propertyData, "fileName", fileName)) return false;
  upload.archive =
      IsPlainFileName(fileName) ? std::string(UpgradePaths::kDownload) + "/" + fileName : fileName;
  const Json::Value checkVersion = propertyData.get("checkVersion", true);
  if (!checkVersion.isBool()) return false;
  upload.checkVersion = checkVersion.asBool();
  return IsPlainAbsolutePath(upload.archive) && PackageName::IsZip(upload.archive);
}

bool QVUpgradeAccessWebs::_WaitForPackage() {
  std::unique_lock<std::mutex> lock(m_queueNextMutex);
  m_stateCond.wait(lock, [this] { return m_newUpload.has_value() || !IsRunning(); });
  if (!IsRunning()) return false;
  m_upload = std::move(*m_newUpload);
  m_newUpload.reset();
  return true;
}

bool QVUpgradeAccessWebs::_UnpackPackage() {
  return UnpackWebAndOTA(UP_WEBS, m_upload.archive, m_upload.checkVersion);
}

void QVUpgradeAccessWebs::_PackageEnded() {
  UpgradeIpcMsg::GetUpgradeIpc()->SwitchWebReport(false);
}
