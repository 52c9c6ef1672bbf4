/// Pins, package and reports of the two radio modules' upgrade. The modules ask for the pin sequence and its
/// times.
#include "UpgradeFrame/RtxSubmodules/CQVUpgradeRtx.h"

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

// --------------------------------------------------------------------------------------- asked by the frame

bool CQVUpgradeRtx::Init() {
  if (m_bInitDone) return true;
  if (!_InitGpio() || !m_exchange.Open()) {
    UploadPrecent(kFailure);
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
  if (!_IsFirstStart()) return true;
  if (!CThread::Pause(kStartPauseMs)) return true;  // the daemon stops
  LOGI("Start upgrade RTX.");
  return m_exchange.StartRun(m_strRtx1Path);
}

bool CQVUpgradeRtx::FinishUpgrade() {
  LOGW("FinishUpgrade: nothing to finish for the radio modules");
  return true;
}

void CQVUpgradeRtx::GetUpgradeStatus(int& /*result*/, int /*seconds*/) {
  LOGW("GetUpgradeStatus: the radio modules' upgrade has not reported its end");
}

bool CQVUpgradeRtx::CleanUp() {
  m_bInitDone = false;
  const bool ended = m_exchange.Close();
  for (IO_t* const module : {&m_stRtx1IO, &m_stRtx2IO}) {
    for (GPIO* const line : {&module->objPon, &module->objPwr, &module->objSwitch}) line->Release();
  }
  return ended;
}

// ------------------------------------------------------------------------------------ asked by the exchange

Failure CQVUpgradeRtx::PrepareFiles(std::string& directory) {
  directory = std::string(UpgradePaths::kPage) + "/rtx";
  const std::string package = _Info().m_upgradeFilePath;
  LOGI("Rtx ota path:%s", package.c_str());
  return MustExec(Reason::PartUnpack, "tar xf " + ShellQuote(package) + " -C " + directory);
}

void CQVUpgradeRtx::_EnterBoot(bool second) {
  const IoDefType boot = second ? EM_IO_BOOT_2 : EM_IO_BOOT_1;
  const IoDefType reset = second ? EM_IO_RESET_2 : EM_IO_RESET_1;
  IO_t& lines = second ? m_stRtx2IO : m_stRtx1IO;
  for (GPIO* const line : {&lines.objPon, &lines.objPwr, &lines.objSwitch}) line->SetLevel(true);
  // A stop ends the pauses but not the sequence: half of it would leave the module in reset.
  _SwitchPin(boot, EM_IO_HIGH);
  CThread::Pause(kBootPauseMs);
  _SwitchPin(reset, EM_IO_LOW);
  CThread::Pause(kResetLowMs);
  _SwitchPin(reset, EM_IO_HIGH);
  CThread::Pause(kResetHighMs);
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

void CQVUpgradeRtx::ChunkProgrammed(int module, size_t done, size_t total) {
  const size_t before = static_cast<size_t>(module - 1) * total;
  _ReportSteps(before + done, kModules * total);
}

const char* CQVUpgradeRtx::ModuleSucceeded(int module) {
  LOGI("RTX[%d] upgrade successfully.", module);
  return module == 1 ? m_strRtx2Path : nullptr;
}

void CQVUpgradeRtx::RunEnded(int module, const Failure& failure) {
  if (failure) {
    LOGE("RTX[%d] upgrade failed!", module);
    ErrorNum::instance()->Record(SubMod_MainBoard, kErrorCode);
  }
  _ReportEnd(failure);
}
