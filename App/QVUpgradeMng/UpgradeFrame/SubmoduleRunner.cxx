/// Upgraders and their reports, as the frame sees them. The start orders and the arithmetic are fixed; a part
/// that is to wait for another one is chained in ProgressSum.
#include "UpgradeFrame/SubmoduleRunner.h"

#include <algorithm>
#include <utility>

#include "BSW/Log/CLog.h"
#include "UpgradeFrame/VersionRecord.h"

namespace {

constexpr int kPointsPerPart = 100;
constexpr int kQuerySeconds = 100;
constexpr int kRtxQuerySuccess = 100;

/// The orders in which the parts start. The FPGA starts behind the USB audio chip, or in its place.
constexpr UPGRADETYPE kOrderWithoutRtx[] = {UP_UAC, UP_APP, UP_SYSTEM, UP_ROOTFS, UP_MCU};
constexpr UPGRADETYPE kOrderAfterRtx[] = {UP_UAC, UP_MCU, UP_APP, UP_SYSTEM, UP_ROOTFS};

bool IsFinal(UPGRADESTATUS status) {
  return status == UPG_UPGRAD_SUCCESS || status == UPG_UPGRAD_ERROR;
}

}  // namespace

SubmoduleRunner::SubmoduleRunner(Factory factory, UPGRADE_UPLOADPROCESS_CALLBACK callback, void* ctx)
    : m_factory(std::move(factory)), m_callback(callback), m_ctx(ctx) {}

bool SubmoduleRunner::AddRecord(const QVUpgradingInfo& record) {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  return m_upgradingInfo.emplace(record.m_modeulesType, record).second;
}

bool SubmoduleRunner::HasRecord(UPGRADETYPE type) const {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  return m_upgradingInfo.count(type) != 0;
}

void SubmoduleRunner::BeginProgress() {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  m_upgradeProgressAll = kPointsPerPart * static_cast<int>(m_upgradingInfo.size());
}

/// Everything is prepared before anything starts or fails: the radio modules' end, and a failure too, start
/// other parts, on another thread perhaps.
void SubmoduleRunner::Start() {
  const std::map<UPGRADETYPE, QVUpgradingInfo> records = _Records();
  std::vector<UPGRADETYPE> failed;
  for (const auto& [type, record] : records) {
    if (m_bStopped) return;
    if (type != UP_RTX && !_Prepare(record)) failed.push_back(type);
  }
  for (const UPGRADETYPE type : failed) ProgressSum(kReportFailure, type);

  const auto rtx = records.find(UP_RTX);
  if (rtx == records.end()) {
    for (const UPGRADETYPE type : kOrderWithoutRtx) _RunOneSub(type);
  } else if (!_StartRtx(rtx->second)) {
    ProgressSum(kReportFailure, UP_RTX);
  }
}

bool SubmoduleRunner::_Prepare(const QVUpgradingInfo& record) {
  const std::shared_ptr<IQVUpgrade> upgrader = _RegisterSubmodules(record.m_modeulesType);
  if (!upgrader) return false;
  upgrader->setUpgradeInfo(record);
  return _InitUpgrader(*upgrader, record.m_modeulesType);
}

bool SubmoduleRunner::_StartRtx(const QVUpgradingInfo& record) {
  const std::shared_ptr<IQVUpgrade> rtx = _RegisterSubmodules(UP_RTX);
  if (!rtx || !_InitUpgrader(*rtx, UP_RTX)) return false;
  rtx->setUpgradeInfo(record);
  if (m_bStopped || rtx->StartUpgrade()) return true;
  LOGE("upgrade cannot be started type:%d", UP_RTX);
  return false;
}

/// The type's upgrader: the one there is, else a new one. Null, logged, for a part that has none.
std::shared_ptr<IQVUpgrade> SubmoduleRunner::_RegisterSubmodules(UPGRADETYPE type) {
  if (std::shared_ptr<IQVUpgrade> existing = _FindUpgrader(type)) return existing;
  std::shared_ptr<IQVUpgrade> created = m_factory(type);
  if (!created) {
    LOGE("no upgrader for type:%d", type);
    return nullptr;
  }
  const std::lock_guard<std::mutex> lock(m_upgraderMutex);
  (type == UP_RTX ? m_pIQVUpgradeRtx : m_pIQVUpgradeMap[type]) = created;
  return created;
}

bool SubmoduleRunner::_InitUpgrader(IQVUpgrade& upgrader, UPGRADETYPE type) {
  const bool ready = upgrader.Init() && upgrader.RegisterUploadPrecentCallback(m_callback, m_ctx);
  // A stop may have asked this upgrader before its thread ran.
  if (m_bStopped) upgrader.RequestStop();
  if (ready) return true;
  LOGE("upgrader cannot be initialised type:%d", type);
  _Release(type);
  return false;
}

void SubmoduleRunner::_RunOneSub(UPGRADETYPE type) {
  std::shared_ptr<IQVUpgrade> upgrader = _FindUpgrader(type);
  if (!upgrader && type == UP_UAC) {
    type = UP_FPGA;
    upgrader = _FindUpgrader(type);
  }
  // A part that has ended is left alone: started again, it would still be writing when the unit reboots.
  if (!upgrader || m_bStopped || _HasEnded(type)) return;
  if (upgrader->StartUpgrade()) return;
  LOGE("upgrade cannot be started type:%d", type);
  ProgressSum(kReportFailure, type);
}

void SubmoduleRunner::ProgressSum(int progress, UPGRADETYPE type) {
  _AddReport(progress, type);
  if (type == UP_RTX && (progress == kReportSuccess || progress == kReportFailure)) {
    for (const UPGRADETYPE next : kOrderAfterRtx) _RunOneSub(next);
  }
  // Before the radio modules have ended nothing else starts, not even in place of a UAC that cannot run.
  if (type == UP_UAC && _HasEndedOrIsAbsent(UP_RTX)) _RunOneSub(UP_FPGA);
}

void SubmoduleRunner::_AddReport(int progress, UPGRADETYPE type) {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  if (progress < 1 || progress == kReportSuccess) LOGI("_ProgressSum upgradeType:%d", type);
  const auto found = m_upgradingInfo.find(type);
  if (found == m_upgradingInfo.end() || IsFinal(found->second.m_upgradeStatus)) {
    LOGW("report %d ignored type:%d", progress, type);
    return;
  }
  QVUpgradingInfo& record = found->second;
  record.m_upgradeProgress = progress;
  if (progress < 0) {
    LOGE("upgrade error type:%d", type);
    record.m_upgradeStatus = UPG_UPGRAD_ERROR;
    ++m_subModuelsFinish;
  } else if (progress == kReportSuccess) {
    LOGI("upgrade succed type:%d", type);
    record.m_upgradeStatus = UPG_UPGRAD_SUCCESS;
    m_upgradeProgress += kPointsPerPart;
    ++m_subModuelsFinish;
  } else {
    m_upgradeProgress += progress;
  }
}

void SubmoduleRunner::LogProgress(int useTime) const {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  for (const auto& [type, record] : m_upgradingInfo) {
    LOGI("upgrade Type:%d upgrade status:%d", type, record.m_upgradeStatus);
  }
  LOGI(
      "QVUpgradeFrameBase::_Upgrading m_upgradeProgressAll:%d m_upgradeProgress:%d m_subModuelsFinish:%d use "
      "time:%d",
      m_upgradeProgressAll, m_upgradeProgress, m_subModuelsFinish, useTime);
}

bool SubmoduleRunner::AllFinished() const {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  return m_subModuelsFinish >= m_upgradeProgressAll / kPointsPerPart;
}

int SubmoduleRunner::Percent() const {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  const int parts = m_upgradeProgressAll / kPointsPerPart;
  return parts == 0 ? 0 : m_upgradeProgress / parts;
}

/// A part that has ended is not asked: some upgraders know the end only from their report.
void SubmoduleRunner::QueryProgress() {
  for (const auto& [type, record] : _Records()) {
    if (type == UP_RTX || _HasEnded(type)) continue;
    if (_QueryStatus(type) < 0) {
      LOGE("upgrade faild subType:%d", type);
      _MarkRecord(type, UPG_UPGRAD_ERROR);
    } else {
      LOGI("upgrade succeed subType:%d", type);
      _MarkRecord(type, UPG_UPGRAD_SUCCESS);
    }
  }
  if (!HasRecord(UP_RTX) || _HasEnded(UP_RTX)) return;
  const int status = _QueryStatus(UP_RTX);
  if (status < 0) {
    LOGE("UP_SYSTEM  upgrade error");
    _MarkRecord(UP_RTX, UPG_UPGRAD_ERROR);
  } else if (status == kRtxQuerySuccess) {
    LOGI("UP_SYSTEM upgrade succed");
    _MarkRecord(UP_RTX, UPG_UPGRAD_SUCCESS);
  }
}

/// Failed unless the upgrader says otherwise: one that hangs, or never began, has not done its part.
int SubmoduleRunner::_QueryStatus(UPGRADETYPE type) {
  int status = kReportFailure;
  if (const std::shared_ptr<IQVUpgrade> upgrader = _FindUpgrader(type)) {
    upgrader->GetUpgradeStatus(status, kQuerySeconds);
  }
  return status;
}

void SubmoduleRunner::_MarkRecord(UPGRADETYPE type, UPGRADESTATUS status) {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  QVUpgradingInfo& record = m_upgradingInfo.at(type);
  if (!IsFinal(record.m_upgradeStatus)) record.m_upgradeStatus = status;
}

bool SubmoduleRunner::CheckModeUpgrade() const {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  for (const auto& [type, record] : m_upgradingInfo) {
    if (record.m_upgradeStatus != UPG_UPGRAD_SUCCESS) {
      LOGE("upgrade Status error mode:%d", type);
      return false;
    }
  }
  return true;
}

bool SubmoduleRunner::CollectVersions(QVUpgradeVersionInfo& versions) const {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  bool complete = true;
  for (const auto& [type, record] : m_upgradingInfo) {
    if (record.m_upgradeStatus != UPG_UPGRAD_SUCCESS) {
      LOGI("submodues upgrade error ytpe:%d", type);
      complete = false;
    } else if (std::string* version = VersionRecord::Field(versions, type)) {
      *version = record.m_upgradeVersion;
    } else {
      LOGE("Not fin type ");
    }
  }
  return complete;
}

void SubmoduleRunner::RequestStop() {
  m_bStopped = true;
  for (const std::shared_ptr<IQVUpgrade>& upgrader : _AllUpgraders()) upgrader->RequestStop();
}

void SubmoduleRunner::CleanUpQVupgrade() {
  for (const auto& [type, record] : _Records()) {
    if (type != UP_RTX && type != UP_UAC) _Release(type);
  }
  LOGD("%s Clean done.", "CleanUpQVupgrade");
}

bool SubmoduleRunner::CleanUp() {
  RequestStop();
  bool clean = true;
  for (const auto& [type, record] : _Records()) clean = _Release(type) && clean;
  return clean;
}

bool SubmoduleRunner::_HasEnded(UPGRADETYPE type) const {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  const auto record = m_upgradingInfo.find(type);
  return record != m_upgradingInfo.end() && IsFinal(record->second.m_upgradeStatus);
}

bool SubmoduleRunner::_HasEndedOrIsAbsent(UPGRADETYPE type) const {
  return !HasRecord(type) || _HasEnded(type);
}

std::map<UPGRADETYPE, QVUpgradingInfo> SubmoduleRunner::_Records() const {
  const std::lock_guard<std::mutex> lock(m_upgradeinfoMutex);
  return m_upgradingInfo;
}

std::shared_ptr<IQVUpgrade> SubmoduleRunner::_FindUpgrader(UPGRADETYPE type) const {
  const std::lock_guard<std::mutex> lock(m_upgraderMutex);
  if (type == UP_RTX) return m_pIQVUpgradeRtx;
  const auto found = m_pIQVUpgradeMap.find(type);
  return found == m_pIQVUpgradeMap.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<IQVUpgrade>> SubmoduleRunner::_AllUpgraders() const {
  const std::lock_guard<std::mutex> lock(m_upgraderMutex);
  std::vector<std::shared_ptr<IQVUpgrade>> all;
  if (m_pIQVUpgradeRtx) all.push_back(m_pIQVUpgradeRtx);
  for (const auto& [type, upgrader] : m_pIQVUpgradeMap) all.push_back(upgrader);
  return all;
}

/// Stops the type's upgrader and forgets it. True also when there is none.
bool SubmoduleRunner::_Release(UPGRADETYPE type) {
  const std::shared_ptr<IQVUpgrade> upgrader = _FindUpgrader(type);
  if (!upgrader) return true;
  {
    const std::lock_guard<std::mutex> lock(m_upgraderMutex);
    if (type == UP_RTX) {
      m_pIQVUpgradeRtx.reset();
    } else {
      m_pIQVUpgradeMap.erase(type);
    }
  }
  return upgrader->CleanUp();
}
