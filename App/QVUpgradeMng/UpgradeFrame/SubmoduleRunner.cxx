/// Upgraders and their reports, as the frame sees them. In which order parts start, and what waits for what,
/// is told by their rows; the radio modules alone are held apart, since they start before all.
#include "UpgradeFrame/SubmoduleRunner.h"

#include <cstddef>
#include <utility>
#include <vector>

#include "BSW/Log/CLog.h"
#include "UpgradePackage/Parts.h"

namespace {

using Parts::Part;

constexpr int kPointsPerPart = 100;
constexpr int kQuerySeconds = 100;
constexpr int kRtxQuerySuccess = 100;

/// One of the two start orders, as the rows of the parts tell it.
using StartOrder = int Part::*;

/// The part at a place of a start order, from 1; null behind the last.
const Part* PartAt(StartOrder order, int place) {
  for (const Part& part : Parts::kAll) {
    if (part.*order == place) return &part;
  }
  return nullptr;
}

constexpr bool HasPart(StartOrder order, int place) {
  for (const Part& part : Parts::kAll) {
    if (part.*order == place) return true;
  }
  return false;
}

/// A part that never started would hold up the upgrade until its time is over.
constexpr bool EveryPartStarts(StartOrder order) {
  int placed = 0;
  for (const Part& part : Parts::kAll) {
    const bool isLed = part.startsBehind != Parts::kBehindNothing &&
                       Parts::kAll[static_cast<size_t>(part.startsBehind) - 1].*order != Parts::kNoPlace;
    if (part.*order != Parts::kNoPlace) {
      ++placed;
    } else if (part.isStation && part.type != UP_RTX && !isLed) {
      return false;
    }
  }
  while (placed > 0 && HasPart(order, placed)) --placed;
  return placed == 0;
}
static_assert(
    EveryPartStarts(&Part::placeWithoutRadio) && EveryPartStarts(&Part::placeAfterRadio),
    "each part of the station has a place of its own, counted from 1, or starts behind one that has");

bool IsFinal(UPGRADESTATUS status) {
  return status == UPG_UPGRAD_SUCCESS || status == UPG_UPGRAD_ERROR;
}

}  // namespace

SubmoduleRunner::SubmoduleRunner(Factory factory, UPGRADE_UPLOADPROCESS_CALLBACK callback, void* ctx)
    : m_factory(std::move(factory)), m_callback(callback), m_ctx(ctx) {}

void SubmoduleRunner::SetRecords(Records records) {
  const CLock lock(m_upgradeinfoMutex);
  m_upgradingInfo = std::move(records);
  m_upgradeProgressAll = kPointsPerPart * static_cast<int>(m_upgradingInfo.size());
}

/// Everything is prepared before anything starts or fails: the radio modules' end, and a failure too, start
/// other parts, on another thread perhaps.
void SubmoduleRunner::Start() {
  const Records records = _Records();
  std::vector<std::pair<UPGRADETYPE, Failure>> failed;
  for (const auto& [type, record] : records) {
    if (type == UP_RTX) continue;
    if (Failure failure = _Prepare(record)) failed.emplace_back(type, std::move(failure));
    if (m_bStopped) return;  // with what failed for that
  }
  for (const auto& [type, failure] : failed) _TakeReport(IQVUpgrade::kFailure, type, failure);

  const auto rtx = records.find(UP_RTX);
  if (rtx == records.end()) {
    for (int place = 1; const Part* part = PartAt(&Part::placeWithoutRadio, place); ++place)
      _RunOneSub(part->type);
  } else if (const Failure failure = _Prepare(rtx->second)) {
    _TakeReport(IQVUpgrade::kFailure, UP_RTX, failure);
  } else {
    _RunOneSub(UP_RTX);
  }
}

Failure SubmoduleRunner::_Prepare(const QVUpgradingInfo& record) {
  const UPGRADETYPE type = record.m_modeulesType;
  const std::shared_ptr<IQVUpgrade> upgrader = _RegisterSubmodules(type);
  if (!upgrader) return Fail(Reason::PartNoUpgrader, "no upgrader for type:%d", type);
  // The radio modules' upgrader gets its record when it is ready, any other one before.
  if (type != UP_RTX) upgrader->setUpgradeInfo(record);
  const bool ready = upgrader->Init() && upgrader->RegisterUploadPrecentCallback(m_callback, m_ctx);
  // A stop may have asked this upgrader before its thread ran.
  if (m_bStopped) upgrader->RequestStop();
  if (!ready) {
    _Release(type);
    return Fail(Reason::PartInit, "upgrader cannot be initialised type:%d", type);
  }
  if (type == UP_RTX) upgrader->setUpgradeInfo(record);
  return {};
}

/// The type's upgrader: the one there is, else a new one. Null for a part that has none.
std::shared_ptr<IQVUpgrade> SubmoduleRunner::_RegisterSubmodules(UPGRADETYPE type) {
  if (std::shared_ptr<IQVUpgrade> existing = _FindUpgrader(type)) return existing;
  const std::shared_ptr<IQVUpgrade> upgrader = m_factory(type);
  const CLock lock(m_upgraderMutex);
  return _Slot(type) = upgrader;
}

/// A part that has ended is left alone: started again, it would still be writing when the unit reboots.
void SubmoduleRunner::_RunOneSub(UPGRADETYPE type) {
  const std::shared_ptr<IQVUpgrade> upgrader = _FindUpgrader(type);
  if (!upgrader) {
    _RunBehind(type);
  } else if (!m_bStopped && !_HasEnded(type) && !upgrader->StartUpgrade()) {
    _TakeReport(IQVUpgrade::kFailure, type,
                Fail(Reason::PartStart, "upgrade cannot be started type:%d", type));
  }
}

void SubmoduleRunner::_RunBehind(UPGRADETYPE type) {
  for (const Part& part : Parts::kAll) {
    if (part.startsBehind == type && type != Parts::kBehindNothing) _RunOneSub(part.type);
  }
}

void SubmoduleRunner::ProgressSum(int progress, UPGRADETYPE type) {
  const std::shared_ptr<IQVUpgrade> failed = progress < 0 ? _FindUpgrader(type) : nullptr;
  _TakeReport(progress, type, failed ? failed->GetFailure() : Failure());
}

void SubmoduleRunner::_TakeReport(int progress, UPGRADETYPE type, const Failure& failure) {
  // Once: an upgrader may take a second start for a failure of its part.
  if (_AddReport(progress, type, failure) && type == UP_RTX) {
    for (int place = 1; const Part* part = PartAt(&Part::placeAfterRadio, place); ++place)
      _RunOneSub(part->type);
  }
  // Before the radio modules have ended nothing else starts, not even in place of a part that cannot run.
  if (_HasEnded(UP_RTX)) _RunBehind(type);
}

bool SubmoduleRunner::_AddReport(int progress, UPGRADETYPE type, const Failure& failure) {
  const CLock lock(m_upgradeinfoMutex);
  if (progress < 1 || progress == IQVUpgrade::kSuccess) LOGI("_ProgressSum upgradeType:%d", type);
  const auto found = m_upgradingInfo.find(type);
  if (found == m_upgradingInfo.end() || IsFinal(found->second.m_upgradeStatus)) {
    LOGW("report %d ignored type:%d", progress, type);
    return false;
  }
  QVUpgradingInfo& record = found->second;
  record.m_upgradeProgress = progress;
  if (progress < 0) {
    LOGE("upgrade error type:%d", type);
    record.m_upgradeStatus = UPG_UPGRAD_ERROR;
    _NoteFailure(type, failure);
  } else if (progress == IQVUpgrade::kSuccess) {
    LOGI("upgrade succed type:%d", type);
    record.m_upgradeStatus = UPG_UPGRAD_SUCCESS;
    m_upgradeProgress += kPointsPerPart;
  } else {
    m_upgradeProgress += progress;
    return false;
  }
  ++m_subModuelsFinish;
  return true;
}

/// Tells why a part failed; the upgrade fails for the part that failed first.
void SubmoduleRunner::_NoteFailure(UPGRADETYPE type, Failure failure) {
  if (!failure) return;
  failure.part = type;
  LOGE("%s", failure.Text().c_str());
  if (!m_firstFailure) m_firstFailure = std::move(failure);
}

void SubmoduleRunner::LogProgress(int useTime) const {
  const CLock lock(m_upgradeinfoMutex);
  for (const auto& [type, record] : m_upgradingInfo) {
    LOGI("upgrade Type:%d upgrade status:%d", type, record.m_upgradeStatus);
  }
  LOGI(
      "QVUpgradeFrameBase::_Upgrading m_upgradeProgressAll:%d m_upgradeProgress:%d m_subModuelsFinish:%d use "
      "time:%d",
      m_upgradeProgressAll, m_upgradeProgress, m_subModuelsFinish, useTime);
}

bool SubmoduleRunner::AllFinished() const {
  const CLock lock(m_upgradeinfoMutex);
  return m_subModuelsFinish >= m_upgradeProgressAll / kPointsPerPart;
}

int SubmoduleRunner::Percent() const {
  const CLock lock(m_upgradeinfoMutex);
  const int parts = m_upgradeProgressAll / kPointsPerPart;
  return parts == 0 ? 0 : m_upgradeProgress / parts;
}

/// A part that has ended is not asked: some upgraders know the end only from their report.
void SubmoduleRunner::_QueryProgress() {
  for (const auto& [type, record] : _Records()) {
    if (type == UP_RTX || _HasEnded(type)) continue;
    const bool failed = _QueryStatus(type) < 0;
    if (failed) LOGE("upgrade faild subType:%d", type);
    if (!failed) LOGI("upgrade succeed subType:%d", type);
    _MarkRecord(type, failed ? UPG_UPGRAD_ERROR : UPG_UPGRAD_SUCCESS);
  }
  if (_HasEnded(UP_RTX)) return;
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
  int status = IQVUpgrade::kFailure;
  if (const std::shared_ptr<IQVUpgrade> upgrader = _FindUpgrader(type)) {
    upgrader->GetUpgradeStatus(status, kQuerySeconds);
  }
  return status;
}

void SubmoduleRunner::_MarkRecord(UPGRADETYPE type, UPGRADESTATUS status) {
  const CLock lock(m_upgradeinfoMutex);
  QVUpgradingInfo& record = m_upgradingInfo.at(type);
  if (IsFinal(record.m_upgradeStatus)) return;
  record.m_upgradeStatus = status;
  if (status == UPG_UPGRAD_ERROR) _NoteFailure(type, Fail(Reason::PartTimeout, "not done in its time"));
}

bool SubmoduleRunner::_CheckModeUpgrade() const {
  const CLock lock(m_upgradeinfoMutex);
  for (const auto& [type, record] : m_upgradingInfo) {
    if (record.m_upgradeStatus != UPG_UPGRAD_SUCCESS) {
      LOGE("upgrade Status error mode:%d", type);
      return false;
    }
  }
  return true;
}

Failure SubmoduleRunner::FirstFailure() const {
  const CLock lock(m_upgradeinfoMutex);
  return m_firstFailure;
}

bool SubmoduleRunner::CollectVersions(QVUpgradeVersionInfo& versions) const {
  const CLock lock(m_upgradeinfoMutex);
  bool complete = true;
  for (const auto& [type, record] : m_upgradingInfo) {
    if (record.m_upgradeStatus != UPG_UPGRAD_SUCCESS) {
      LOGI("submodues upgrade error ytpe:%d", type);
      complete = false;
    } else if (const Part* part = Parts::Find(type)) {
      versions.*part->version = record.m_upgradeVersion;
    } else {
      LOGE("Not fin type ");
    }
  }
  return complete;
}

void SubmoduleRunner::RequestStop() {
  m_bStopped = true;
  // _Prepare asks for the flag after it kept and initialised one: what this walk does not meet ends there.
  for (const Part& part : Parts::kAll) {
    if (const std::shared_ptr<IQVUpgrade> upgrader = _FindUpgrader(part.type)) upgrader->RequestStop();
  }
}

void SubmoduleRunner::CleanUpQVupgrade() {
  for (const Part& part : Parts::kAll) {
    if (part.type != UP_RTX && part.type != UP_UAC) _Release(part.type);
  }
  LOGD("%s Clean done.", "CleanUpQVupgrade");
}

bool SubmoduleRunner::CleanUp() {
  RequestStop();
  bool clean = true;
  for (const Part& part : Parts::kAll) clean = _Release(part.type) && clean;
  return clean;
}

/// True for a part that has ended, and for one that the package does not have.
bool SubmoduleRunner::_HasEnded(UPGRADETYPE type) const {
  const CLock lock(m_upgradeinfoMutex);
  const auto record = m_upgradingInfo.find(type);
  return record == m_upgradingInfo.end() || IsFinal(record->second.m_upgradeStatus);
}

SubmoduleRunner::Records SubmoduleRunner::_Records() const {
  const CLock lock(m_upgradeinfoMutex);
  return m_upgradingInfo;
}

std::shared_ptr<IQVUpgrade>& SubmoduleRunner::_Slot(UPGRADETYPE type) {
  return type == UP_RTX ? m_pIQVUpgradeRtx : m_pIQVUpgradeMap[type];
}

std::shared_ptr<IQVUpgrade> SubmoduleRunner::_FindUpgrader(UPGRADETYPE type) {
  const CLock lock(m_upgraderMutex);
  return _Slot(type);
}

/// Stops the type's upgrader and forgets it. True also when there is none.
bool SubmoduleRunner::_Release(UPGRADETYPE type) {
  std::shared_ptr<IQVUpgrade> upgrader;
  {
    const CLock lock(m_upgraderMutex);
    upgrader.swap(_Slot(type));
  }
  return !upgrader || upgrader->CleanUp();
}
