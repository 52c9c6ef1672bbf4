/// Pins, package and reports of the two radio modules' upgrade. Called by the frame, and by the exchange on
/// its state thread. The pin sequence and its times are the modules'.
#include "UpgradeFrame/RtxSubmodules/CQVUpgradeRtx.h"

#include <utility>

#include "BSW/BasicFun/StringUtils.h"
#include "BSW/ErrorNum/ErrorNum.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"

namespace {

constexpr int kErrorCode = 0x460;
constexpr size_t kModules = 2;
constexpr uint32_t kStartPauseMs = 5000;

constexpr uint32_t kBootPauseMs = 200;
constexpr uint32_t kResetLowMs = 10;
constexpr uint32_t kResetHighMs = 100;
constexpr const char* kToControlPins = " > /sys/devices/platform/qv_platform/setup_ctrl_pin";

}  // namespace

CQVUpgradeRtx::CQVUpgradeRtx() : RtxExchange("UpgradeRtx", m_strUartName, m_iWaitTime) {}

CQVUpgradeRtx::~CQVUpgradeRtx() {
  _CloseExchange();
}

// --------------------------------------------------------------------------------------- asked by the frame

bool CQVUpgradeRtx::Init() {
  if (m_bInitDone) return true;
  if (!_InitGpio() || !_OpenExchange()) {
    UploadPrecent(ProgressReporter::kFailure);
    CleanUp();
    return false;
  }
  LOGI("Init UpgradeRtx module successfully.");
  m_bInitDone = true;
  return true;
}

bool CQVUpgradeRtx::_InitGpio() {
  const bool ready = m_stRtx1IO.objPon.Init(EM_IO_PON_1) && m_stRtx1IO.objPwr.Init(EM_IO_PWR_1) &&
                     m_stRtx1IO.objSwitch.Init(EM_IO_SWITCH_1) && m_stRtx2IO.objPon.Init(EM_IO_PON_2) &&
                     m_stRtx2IO.objPwr.Init(EM_IO_PWR_2) && m_stRtx2IO.objSwitch.Init(EM_IO_SWITCH_2);
  if (!ready) LOGE("Falied to init GPIO!");
  return ready;
}

bool CQVUpgradeRtx::StartUpgrade() {
  if (!m_bInitDone) return false;
  if (m_bStarted.exchange(true)) return true;
  if (!Pause(kStartPauseMs)) return true;  // the daemon stops
  LOGI("Start upgrade RTX.");
  return _StartRun(m_strRtx1Path);
}

bool CQVUpgradeRtx::RegisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  return m_progress.Register(cb, ctx);
}

bool CQVUpgradeRtx::UnregisterUploadPrecentCallback(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  return m_progress.Unregister(cb, ctx);
}

int CQVUpgradeRtx::UploadPrecent(int percent) {
  return m_progress.Report(percent);
}

bool CQVUpgradeRtx::setUpgradeInfo(QVUpgradingInfo info) {
  const std::lock_guard<std::mutex> lock(m_infoMutex);
  m_stUpgInfo = std::move(info);
  return true;
}

bool CQVUpgradeRtx::FinishUpgrade() {
  LOGW("FinishUpgrade: nothing to finish for the radio modules");
  return true;
}

void CQVUpgradeRtx::GetUpgradeStatus(int& /*result*/, int /*seconds*/) {
  LOGW("GetUpgradeStatus: the radio modules' upgrade has not reported its end");
}

void CQVUpgradeRtx::RequestStop() {
  DestroyThread(true, false);
}

bool CQVUpgradeRtx::CleanUp() {
  m_bInitDone = false;
  const bool ended = _CloseExchange();
  for (IO_t* const module : {&m_stRtx1IO, &m_stRtx2IO}) {
    for (GPIO* const line : {&module->objPon, &module->objPwr, &module->objSwitch}) line->Release();
  }
  return ended;
}

// ------------------------------------------------------------------------------------ asked by the exchange

bool CQVUpgradeRtx::_PrepareFiles() {
  const std::string directory = std::string(UpgradePaths::kPage) + "/rtx";
  std::string package;
  {
    const std::lock_guard<std::mutex> lock(m_infoMutex);
    package = m_stUpgInfo.m_upgradeFilePath;
  }
  LOGI("Rtx ota path:%s", package.c_str());
  const std::string command = "tar xf " + ShellQuote(package) + " -C " + directory;
  const int code = QVUpgradeTool::ExecCommand(command);
  if (code != 0) {
    LOGE("command failed with %d: %s", code, command.c_str());
    return false;
  }
  return _SetFiles(directory);
}

void CQVUpgradeRtx::_EnterBoot() {
  const bool second = _HasFlag(EM_FLAG_UPGING_RTX2);
  const IoDefType boot = second ? EM_IO_BOOT_2 : EM_IO_BOOT_1;
  const IoDefType reset = second ? EM_IO_RESET_2 : EM_IO_RESET_1;
  IO_t& lines = second ? m_stRtx2IO : m_stRtx1IO;
  for (GPIO* const line : {&lines.objPon, &lines.objPwr, &lines.objSwitch}) line->SetLevel(true);
  // A stop ends the pauses but not the sequence: half of it would leave the module in reset.
  _SwitchPin(boot, EM_IO_HIGH);
  Pause(kBootPauseMs);
  _SwitchPin(reset, EM_IO_LOW);
  Pause(kResetLowMs);
  _SwitchPin(reset, EM_IO_HIGH);
  Pause(kResetHighMs);
  _SwitchPin(reset, EM_IO_LOW);
  _SwitchPin(boot, EM_IO_LOW);
  LOGI("Boot RTX");
}

void CQVUpgradeRtx::_SwitchPin(IoDefType pin, IoLevelType level) {
  const std::string command = "echo " + std::to_string(pin) + " " + std::to_string(level) + kToControlPins;
  LOGI("_SwitchPin cmd:%s", command.c_str());
  const int code = QVUpgradeTool::ExecCommand(command);
  if (code != 0) LOGE("command failed with %d: %s", code, command.c_str());
}

int CQVUpgradeRtx::_Module() const {
  return _HasFlag(EM_FLAG_UPGING_RTX2) ? 2 : 1;
}

void CQVUpgradeRtx::_ChunkProgrammed(size_t done, size_t total) {
  const size_t before = static_cast<size_t>(_Module() - 1) * total;
  m_progress.ReportSteps(before + done, kModules * total);
}

const char* CQVUpgradeRtx::_ModuleSucceeded() {
  LOGI("RTX[%d] upgrade successfully.", _Module());
  if (_HasFlag(EM_FLAG_UPGING_RTX2)) {
    _SetFlags(EM_FLAG_UPG_RTX2_SUCCESS);
    return nullptr;
  }
  _SetFlags(EM_FLAG_UPG_RTX1_SUCCESS | EM_FLAG_UPGING_RTX2);
  return m_strRtx2Path;
}

void CQVUpgradeRtx::_ModuleFailed() {
  LOGE("RTX[%d] upgrade failed!", _Module());
  ErrorNum::instance()->Record(SubMod_MainBoard, kErrorCode);
}

void CQVUpgradeRtx::_RunEnded(bool success) {
  m_progress.Report(success ? ProgressReporter::kSuccess : ProgressReporter::kFailure);
}
