/// The MCU at the daemon's start.
#include "UpgradeFrame/McuSubmodules/McuStartup.h"

#include <chrono>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"

using McuMessages::Identity;
using McuMessages::RunMode;

namespace {

/// Many times what a whole upgrade of the MCU takes.
constexpr std::chrono::minutes kContinueTime(10);
constexpr int kVersionTries = 3;
/// What the upgrade stopped.
constexpr const char* kStartApplicationCommand = "systemctl start quorvalen";

}  // namespace

std::optional<McuVersion> McuStartup::Run() {
  if (!XFilePathExists(McuSubmodules::m_strUartName)) {
    LOGI("no %s, no MCU", McuSubmodules::m_strUartName);
    return std::nullopt;
  }
  const bool interrupted = McuUpgRecord(McuSubmodules::m_stStoredPath).IsInterrupted();
  if (!_EnterPhase(interrupted ? Phase::Continuing : Phase::Asking)) return std::nullopt;
  const std::optional<Identity> mcu = interrupted ? _ContinueUpgrade() : m_mcu.LoadVersion();
  _EndRun();
  if (!mcu) return std::nullopt;
  return mcu->version;
}

bool McuStartup::_EnterPhase(Phase phase) {
  const CLock lock(m_mutex);
  if (m_emPhase != Phase::NotBegun) return false;
  m_emPhase = phase;
  return true;
}

void McuStartup::_EndRun() {
  const CLock lock(m_mutex);
  m_emPhase = Phase::Ended;
  m_cvNews.NotifyAll();
}

std::optional<Identity> McuStartup::_ContinueUpgrade() {
  // The frame counts no part here.
  m_mcu.RegisterUploadPrecentCallback([](int, UPGRADETYPE, void*) { return 0; }, nullptr);
  m_mcu.RegRetUpgResultCb([this](bool succeeded) {
    LOGI("interrupted MCU upgrade %s", succeeded ? "is done" : "has failed");
    const CLock lock(m_mutex);
    m_bResult = true;
    m_cvNews.NotifyAll();
  });
  LOGW("MCU upgrade was interrupted, it is continued");
  if (!m_mcu.Init()) return std::nullopt;
  std::optional<Identity> mcu;
  // The first request can be lost: the services that were just stopped may have taken its answer.
  for (int tries = 0; tries < kVersionTries && (!mcu || mcu->mode == RunMode::Silent) && !_IsCutOff();
       ++tries) {
    mcu = m_mcu.LoadVersion();
  }
  if (mcu && mcu->mode != RunMode::Silent) {
    const bool inBoot = mcu->mode == RunMode::BootLoader;
    if (m_mcu.ContinueUpg(inBoot ? McuSubmodules::EM_STATE_UPG_MCU : McuSubmodules::EM_STATE_CHECK_VER)) {
      _WaitForResult();
      mcu = m_mcu.LastIdentity();
    }
  }
  m_mcu.CleanUp();
  // A run that has ended is not taken up again at the next start, so its service is started even after a
  // stop.
  if (_IsCutOff()) return std::nullopt;
  if (QVUpgradeTool::ExecCommand(kStartApplicationCommand) != 0) LOGE("%s failed", kStartApplicationCommand);
  return mcu;
}

void McuStartup::_WaitForResult() {
  const CLock lock(m_mutex);
  if (m_cvNews.WaitFor(m_mutex, kContinueTime,
                       [this]() REQUIRES(m_mutex) { return m_bResult || m_bStopped; }))
    return;
  LOGE("interrupted MCU upgrade does not come to its end, it is given up");
}

bool McuStartup::_IsCutOff() {
  const CLock lock(m_mutex);
  return m_bStopped && !m_bResult;
}

void McuStartup::HandOverLine() {
  bool asking = false;
  {
    const CLock lock(m_mutex);
    asking = m_emPhase == Phase::Asking;
    if (m_emPhase == Phase::NotBegun) m_emPhase = Phase::Ended;
  }
  if (asking) m_mcu.RequestStop();
  const CLock lock(m_mutex);
  m_cvNews.Wait(m_mutex, [this]() REQUIRES(m_mutex) { return m_emPhase == Phase::Ended; });
}

void McuStartup::RequestStop() {
  {
    const CLock lock(m_mutex);
    m_bStopped = true;
    if (m_emPhase == Phase::NotBegun) m_emPhase = Phase::Ended;
    m_cvNews.NotifyAll();
  }
  m_mcu.RequestStop();
}
