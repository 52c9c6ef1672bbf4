/// A cloud package's way from the request to the unpacked page. The claim, and the reports to the web server,
/// last from the accepted request until the package ends or the unit reboots.
#include "UpgradeFrame/AccessMng/QVUpgradeAccessOTA.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/AccessMng/DownloadDirectory.h"
#include "UpgradeFrame/AccessMng/OtaOffer.h"
#include "UpgradeFrame/AccessMng/PackagePage.h"
#include "UpgradeFrame/AccessMng/PackageUnpack.h"
#include "UpgradeFrame/QVUpgradeFrameBase.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"

namespace {

using Quorvalen::DownloadTask;
using Quorvalen::PackageInfo;
using Quorvalen::QueryResult;

constexpr const char* kInterface = "org.Upgrade_OTA_Request_Method.interface";
constexpr const char* kMethod = "upgrade_ota_dbus_signal_notify";

constexpr std::chrono::seconds kProgressInterval(1);
constexpr int kWholePercent = 100;

std::string ReadHost(const std::string& file) {
  Json::Value content;
  return JsonUtils::ReadFileToJson(file, content)
             ? JsonUtils::StringOr(content, UpgradePaths::kOtaHostKey, "")
             : std::string();
}

void ReportStart(const char* state, const std::string& error) {
  Json::Value payload(Json::objectValue);
  payload["State"] = state;
  payload["ErrorMsg"] = error;
  UpgradeIpcMsg::GetUpgradeIpc()->SendOtaMsg(DeviceUpgradeUIIPC::UPGRADE_OTA_START, payload);
}

bool HasEnded(const DownloadTask::Status& status) {
  return status.state == DownloadTask::State::Done || status.state == DownloadTask::State::Failed ||
         status.state == DownloadTask::State::Cancelled;
}

Failure SpaceShortage(const std::string& archive, uint64_t size) {
  partition_usage_t usage;
  if (!QVUpgradeTool::getPartitionUserSize(UpgradePaths::kDownload, &usage)) {
    return Fail(Reason::Space, "the free space is unknown");
  }
  const int64_t present = std::max(
      {XGetFileSize(archive), XGetFileSize(archive + UpgradePaths::kUnfinishedExtension), int64_t{0}});
  return OtaOffer::SpaceShortage(size, static_cast<uint64_t>(present), usage.available_bytes);
}

}  // namespace

QVUpgradeAccessOTA::QVUpgradeAccessOTA(const AccessContext& access, std::string hostFile)
    : RequestedSource("AccessOTA", UP_OTA, access, {kInterface, kMethod, ForwardTo<UP_OTA>, "ota"}),
      m_hostFile(std::move(hostFile)) {}

QVUpgradeAccessOTA::~QVUpgradeAccessOTA() {
  CleanUp();
}

bool QVUpgradeAccessOTA::_Listen() {
  // A download that a crash cut short, in the transfer or in the check of all of it, has left the interrupts
  // free.
  if (DownloadDirectory::HasDownload()) _SetSmpAffinityToCpu0(false);
  if (m_loop.Start() && RequestedSource::_Listen()) return true;
  m_loop.Stop();
  return false;
}

void QVUpgradeAccessOTA::_Unlisten() {
  RequestedSource::_Unlisten();
  m_loop.Stop();
}

void QVUpgradeAccessOTA::ThreadProc() {
  RequestedSource::ThreadProc();
  m_loop.Stop();
}

RequestedSource::Answer QVUpgradeAccessOTA::_Accept(const IpcEnvelope::Request& request) {
  switch (request.cmd) {
    case DeviceUpgradeUIIPC::UPGRADE_OTA_QUERY:
      return m_access.claim.IsClaimed() ? _Busy() : _AskBackend(false);
    case DeviceUpgradeUIIPC::UPGRADE_OTA_START:
      return _AcceptStart();
    case DeviceUpgradeUIIPC::UPGRADE_UI_GET_VERSION:
      m_access.versions.SendVersionUI();
      return {};
    default:
      return _Malformed();
  }
}

RequestedSource::Answer QVUpgradeAccessOTA::_AcceptStart() {
  const auto hasOffer = [this] {
    const CLock lock(m_queueNextMutex);
    return m_answer && m_answer->package;
  };
  return _AcceptPackage([&] { return hasOffer() ? Answer() : _AskBackend(true); },
                        [this] {
                          const CLock lock(m_queueNextMutex);
                          m_bStartWanted = true;
                          m_stateCond.NotifyAll();
                        });
}

RequestedSource::Answer QVUpgradeAccessOTA::_AskBackend(bool orJoin) {
  const std::string host = ReadHost(m_hostFile);
  if (host.empty()) return {REPLY_REFUSED, "no backend host is set in " + m_hostFile};
  const OTAVersion installed = m_access.versions.getAllVersion().m_oldOverallVer;
  const Quorvalen::QueryRequest query = {DeviceIdentity::kProductCode, DeviceIdentity::kDeviceId,
                                         installed.m_hardVersion, installed.m_softVersion};

  const CLock lock(m_queueNextMutex);
  const auto take = [this, number = m_query + 1](const QueryResult& answer) { _OnAnswer(number, answer); };
  if (m_backend.Query(host, query, take)) {
    ++m_query;
  } else if (!orJoin) {
    return {REPLY_BUSY, "the backend is being asked already"};
  }
  m_answer.reset();
  return {};
}

void QVUpgradeAccessOTA::_OnAnswer(uint64_t query, const QueryResult& answer) {
  const AllVersion versions = m_access.versions.getAllVersion();
  QueryResult judged = OtaOffer::Judge(answer, versions.m_oldOverallVer.m_softVersion);
  const CLock lock(m_queueNextMutex);
  // A query that was started meanwhile gets its own answer.
  if (query != m_query) return;
  m_reports.push(OtaOffer::Report(judged));
  m_answer = std::move(judged);
  m_stateCond.NotifyAll();
}

bool QVUpgradeAccessOTA::_WaitAndTell(bool (QVUpgradeAccessOTA::*take)()) {
  CLock lock(m_queueNextMutex);
  while (IsRunning()) {
    if (!m_reports.empty()) {
      const Json::Value report = std::move(m_reports.front());
      m_reports.pop();
      lock.Unlock();
      UpgradeIpcMsg::GetUpgradeIpc()->SendOtaMsg(DeviceUpgradeUIIPC::UPGRADE_OTA_QUERY, report);
      lock.Lock();
    } else if ((this->*take)()) {
      return true;
    } else {
      m_stateCond.Wait(m_queueNextMutex);
    }
  }
  return false;
}

bool QVUpgradeAccessOTA::_WaitForPackage() {
  return _WaitAndTell(&QVUpgradeAccessOTA::_TakeStart);
}

Failure QVUpgradeAccessOTA::_FetchPackage() {
  Failure failure = _AwaitOffer();
  if (!failure) failure = _Download(*m_offer.package);
  // After a stop a request to the next start goes on with what is there.
  if (!IsRunning()) return {Reason::Stopped, "", UP_NO_TYPE};
  if (failure.reason != Reason::CloudNone) ReportStart(failure ? "failed" : "done", failure.context);
  return failure;
}

// That there is no newer package comes after the status: nothing was begun that failed.
void QVUpgradeAccessOTA::_PackageEnded(const Failure& failure) {
  if (failure.reason == Reason::CloudNone) ReportStart("failed", failure.context);
  RequestedSource::_PackageEnded(failure);
}

Failure QVUpgradeAccessOTA::_AwaitOffer() {
  if (!_WaitAndTell(&QVUpgradeAccessOTA::_TakeAnswer)) return {Reason::Stopped, "", UP_NO_TYPE};
  if (!m_offer.error.empty()) {
    m_backend.Cancel();  // the request has failed: no tries that nobody waits for
    return Fail(Reason::CloudAnswer, "%s", m_offer.error.c_str());
  }
  if (!m_offer.package) return Fail(Reason::CloudNone, "the backend has no newer package");
  return {};
}

bool QVUpgradeAccessOTA::_TakeAnswer() {
  if (!m_answer) return false;
  // Used up: should this download fail, the next request asks whether the package is still the same.
  m_offer = std::move(*m_answer);
  m_answer.reset();
  return true;
}

Failure QVUpgradeAccessOTA::_Download(const PackageInfo& package) {
  m_archive = std::string(UpgradePaths::kDownload) + "/" + package.fileName;
  DownloadDirectory::Create();
  DownloadDirectory::ClearForDownload(m_archive);
  PackagePage::InitUpgradeFilePath();  // what an earlier package and core dumps take is free
  if (Failure failure = SpaceShortage(m_archive, package.size)) return failure;

  const Quorvalen::DownloadRequest request = {package.url, UpgradePaths::kDownload, package.fileName,
                                              package.size, package.md5};
  const uint64_t there = Quorvalen::QuorvalenDownloadManager::BytesThere(request);
  const int percent = OtaOffer::Percent(there, package.size);
  {
    const CLock lock(m_queueNextMutex);
    m_download = {DownloadTask::State::Queued, there, package.size, ""};
  }
  // A file that is complete already, because the daemon was stopped or the battery ran low before it was
  // unpacked, is only verified.
  ReportStart("started", "");
  _ReportStatus(UI_STATUS_DOWNLOADING, percent);
  _SetSmpAffinityToCpu0(true);
  bool isFree = true;
  std::string error;
  const auto onProgress = [this](const DownloadTask::Status& status) {
    const CLock lock(m_queueNextMutex);
    m_download = status;
    m_stateCond.NotifyAll();
  };
  const std::shared_ptr<DownloadTask> task = m_downloads.Add(request, onProgress, error);
  Failure failure =
      task != nullptr ? _AwaitDownload(percent, isFree) : Fail(Reason::CloudDownload, "%s", error.c_str());
  if (isFree) _SetSmpAffinityToCpu0(false);
  if (failure) return failure;
  _ReportStatus(UI_STATUS_DOWNLOADING, kWholePercent);
  // A download takes long enough to drain it. The web server hears of the failure, the panel of both.
  if (!_CheckBattery()) return {};
  _TellPanel(Reasons::Panel::BatteryLow);
  return {Reason::BatteryDrained, kBatteryTooLow, UP_NO_TYPE};
}

Failure QVUpgradeAccessOTA::_AwaitDownload(int reported, bool& isFree) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point nextReport = Clock::now() + kProgressInterval;
  CLock lock(m_queueNextMutex);
  while (IsRunning() && !HasEnded(m_download)) {
    const int percent = OtaOffer::Percent(m_download.received, m_download.total);
    // Between two tries no byte comes: radio and audio have their cores for themselves.
    const bool wantsBytes = m_download.state != DownloadTask::State::Waiting;
    if (wantsBytes != isFree) {
      lock.Unlock();
      _SetSmpAffinityToCpu0(wantsBytes);
      isFree = wantsBytes;
      lock.Lock();
    } else if (percent == reported) {
      m_stateCond.Wait(m_queueNextMutex);
    } else if (Clock::now() < nextReport) {
      m_stateCond.WaitUntil(m_queueNextMutex, nextReport);
    } else {
      lock.Unlock();
      _ReportStatus(UI_STATUS_DOWNLOADING, percent);
      reported = percent;
      nextReport = Clock::now() + kProgressInterval;
      lock.Lock();
    }
  }
  if (m_download.state == DownloadTask::State::Done) return {};
  return Fail(Reason::CloudDownload, "%s", m_download.message.c_str());
}

Failure QVUpgradeAccessOTA::_UnpackPackage() {
  return PackageUnpack::UnpackWebAndOTA(m_access, UP_OTA, m_archive, false);
}

bool QVUpgradeAccessOTA::_StartFrame() {
  if (!m_access.frame->startUpgrade(UP_OTA, m_access.versions.getAllVersion())) return false;
  m_access.claim.setmStartUpgrade(true);
  return true;
}
