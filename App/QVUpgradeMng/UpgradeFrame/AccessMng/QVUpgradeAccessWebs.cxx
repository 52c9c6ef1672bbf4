/// The web server's one command, and the package that it names.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessWebs.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "UpgradeFrame/AccessMng/DownloadDirectory.h"
#include "UpgradeFrame/AccessMng/PackageUnpack.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradePackage/PackageName.h"

namespace {

constexpr const char* kInterface = "org.UpgradeWebRequest_Method.interface";
constexpr const char* kMethod = "upgrade_web_dbus_method_notify";
constexpr int kCmdUpgrade = 100;

/// True for an absolute path without empty, "." or ".." parts: it means what it says.
bool IsPlainAbsolutePath(const std::string& path) {
  if (path.empty() || path.front() != '/') return false;
  const std::vector<std::string> parts = Split(path.substr(1), '/');
  return std::all_of(parts.begin(), parts.end(),
                     [](const std::string& part) { return IsPlainFileName(part); });
}

}  // namespace

QVUpgradeAccessWebs::QVUpgradeAccessWebs(const AccessContext& access)
    : RequestedSource("AccessWebs", UP_WEBS, access, {kInterface, kMethod, ForwardTo<UP_WEBS>, "web"}) {}

QVUpgradeAccessWebs::~QVUpgradeAccessWebs() {
  CleanUp();
}

bool QVUpgradeAccessWebs::_Listen() {
  DownloadDirectory::Create();
  return RequestedSource::_Listen();
}

RequestedSource::Answer QVUpgradeAccessWebs::_Accept(const IpcEnvelope::Request& request) {
  Upload upload;
  if (request.cmd != kCmdUpgrade || !_ParseUpload(request.propertyData, upload)) return _Malformed();
  const auto check = [&upload] {
    return IsRegularFileItself(upload.archive) ? Answer() : Answer{REPLY_REFUSED, "no such package file"};
  };
  return _AcceptPackage(check, [&] {
    const CLock lock(m_queueNextMutex);
    m_newUpload = std::move(upload);
    m_stateCond.NotifyAll();
  });
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
  const CLock lock(m_queueNextMutex);
  m_stateCond.Wait(m_queueNextMutex,
                   [this]() REQUIRES(m_queueNextMutex) { return m_newUpload.has_value() || !IsRunning(); });
  if (!IsRunning()) return false;
  m_upload = std::move(*m_newUpload);
  m_newUpload.reset();
  return true;
}

Failure QVUpgradeAccessWebs::_UnpackPackage() {
  return PackageUnpack::UnpackWebAndOTA(m_access, UP_WEBS, m_upload.archive, m_upload.checkVersion);
}
