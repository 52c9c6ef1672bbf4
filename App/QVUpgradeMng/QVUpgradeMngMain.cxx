/// Entry of the upgrade daemon: signals, log, the cloud host's migration, the start order of the parts and
/// their orderly stop. The main thread only waits; all work happens on the threads of the parts. Supervision
/// restarts the daemon after a crash, so the crash handler must end the process whatever state it is in.
#include <execinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "BSW/BasicFun/JsonUtils.h"
#include "BSW/BasicFun/TimeUtils.h"
#include "BSW/Dbus/CDbusHandler.h"
#include "BSW/ErrorNum/ErrorNum.h"
#include "BSW/Log/CLog.h"
#include "BSW/MultiTask/CThread.h"
#include "BSW/PhyInterface/PhyInterface.h"
#include "BackendHosts.h"
#include "BuildInfo.h"
#include "DebugCommands.h"
#include "SysCtrlReports.h"
#include "UpgradeFrame/AccessMng/QVUpgradeAccessFrame.h"
#include "UpgradeFrame/BatteryLevel.h"
#include "UpgradeFrame/DeviceVersions.h"
#include "UpgradeFrame/PackageClaim.h"
#include "UpgradeFrame/QVUpgradeFrameBase.h"
#include "UpgradeFrame/QVUpgradeTool.h"
#include "UpgradeFrame/UpgradePaths.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradeIpcMsg/UpgradeIpcMsg.h"
#include "UpgradePp/UpgradePp.h"

/// Set by the termination signals; ends the main loop.
static std::atomic<bool> bExitFlag{false};
/// The one upgrade frame.
static std::shared_ptr<QVUpgradeFrameBase> tempFrame;
/// Base URL of the cloud backend as the host file has it.
static std::string m_appHostName;

namespace {

constexpr const char* kProgramVersion = "V1.1.6.00";
constexpr const char* kBuildType = ", BuildType:Debug";
constexpr const char* kBusName = "org.Upgread.server";
constexpr const char* kMainThreadName = "QVUpMng:Main";
constexpr const char* kLogDirectory = "/firmware/log/QVUpgradeMng";
constexpr const char* kErrorRecordDirectory = "/firmware/log/";
constexpr char kBannerFormat[] = "[QVUpgradeMng] Version:%s  Build Date: %s %s, Uptime: %lu ms ****";
constexpr uint32_t kExitPollMs = 100;

constexpr unsigned kCrashSeconds = 5;  ///< for the crash handler; then the process is ended without it
constexpr int kMaxFrames = 50;

std::atomic<int> crashSignal{0};  ///< of the first crash; 0 while there was none

void SigProc(int sig) {
  const int interruptedErrno = errno;  // of whatever thread this runs on
  bExitFlag = true;
  std::array<char, 64> text{};
  const int length = std::snprintf(text.data(), text.size(), "\nReceived Signal %d\n", sig);
  [[maybe_unused]] const auto ignored = write(STDOUT_FILENO, text.data(), static_cast<size_t>(length));
  errno = interruptedErrno;
}

void EndHungCrash(int /*sig*/) {
  _exit(crashSignal);
}

/// Makes sure that the process ends with the first crash's signal as its status: at once when the handler
/// crashes too, or after some seconds when it waits for a lock that the crashed thread holds.
void ArmCrashEnd(int sig) {
  int firstSignal = 0;
  if (!crashSignal.compare_exchange_strong(firstSignal, sig)) _exit(firstSignal);
  CThread::MarkCrashed();
  std::signal(SIGALRM, EndHungCrash);
  sigset_t deliverable;
  sigemptyset(&deliverable);
  sigaddset(&deliverable, SIGALRM);
  sigaddset(&deliverable, sig);
  pthread_sigmask(SIG_UNBLOCK, &deliverable, nullptr);
  alarm(kCrashSeconds);
}

/// Crash handler. It is not async-signal-safe, which is accepted: the process ends anyway.
void signalHandler(int sig) {
  ArmCrashEnd(sig);
  std::array<char, 64> command{};
  std::snprintf(command.data(), command.size(), "cat /proc/%d/maps", getpid());
  [[maybe_unused]] const int printed = std::system(command.data());

  std::array<void*, kMaxFrames> frames{};
  const int count = backtrace(frames.data(), kMaxFrames);
  char** const symbols = backtrace_symbols(frames.data(), count);
  std::printf("Received signal %d\nStack trace:\n", sig);
  for (int i = 0; symbols != nullptr && i < count; ++i) std::printf("%s\n", symbols[i]);
  std::fflush(stdout);  // the trace is out, whatever happens in the exit handlers
  std::free(symbols);
  std::exit(sig);
}

void InitSignals() {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  for (const int sig : {SIGTERM, SIGINT, SIGPIPE}) sigaddset(&action.sa_mask, sig);
  action.sa_handler = SigProc;
  for (const int sig : {SIGTERM, SIGINT}) sigaction(sig, &action, nullptr);
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
  for (const int sig : {SIGABRT, SIGSEGV, SIGILL, SIGFPE}) std::signal(sig, signalHandler);
}

void AppWirtOTAHost() {
  Json::Value content(Json::objectValue);
  content[UpgradePaths::kOtaHostKey] = m_appHostName;
  content[UpgradePaths::kOtaHostSetKey] = 1;
  LOGI("AppWirtOTAHost m_appHostName:%s", m_appHostName.c_str());
  if (!JsonUtils::WriteFileToJson(UpgradePaths::kOtaHostFile, content, true))
    LOGE("cannot write %s", UpgradePaths::kOtaHostFile);
  QVUpgradeTool::ExecCommand("sync");
}

/// Moves a device from a pre-release backend to the production backend of the same brand, once.
void AppReadOTAHost() {
  LOGI("AppReadOTAHost 11111111111111111");
  struct stat info {};
  if (stat(UpgradePaths::kOtaHostFile, &info) != 0) {
    LOGI("AppReadOTAHost %s not exist", UpgradePaths::kOtaHostFile);
    return;
  }
  Json::Value content;
  if (!S_ISREG(info.st_mode) || !JsonUtils::ReadFileToJson(UpgradePaths::kOtaHostFile, content)) return;
  int flag = 0;
  if (JsonUtils::GetInt(content, UpgradePaths::kOtaHostSetKey, flag)) {
    LOGI("AppReadOTAHost web_or_oled_set_flag  exist");
    return;
  }
  if (!JsonUtils::GetString(content, UpgradePaths::kOtaHostKey, m_appHostName)) return;
  LOGI("AppReadOTAHost before file host:%s", m_appHostName.c_str());
  const bool isBrand = m_appHostName == BackendHosts::kBrandPrerelease;
  if (isBrand || m_appHostName == BackendHosts::kMakerPrerelease) {
    m_appHostName = isBrand ? BackendHosts::kBrandProduction : BackendHosts::kMakerProduction;
    AppWirtOTAHost();
  }
  LOGI("AppReadOTAHost after file host:%s", m_appHostName.c_str());
}

/// Creates and starts the parts. Each logs what it cannot do, and the daemon runs with the rest.
void AppInit();
/// Cleans the parts up and stops every thread that AppInit started.
void AppStop();

}  // namespace

int main(int /*argc*/, char* /*argv*/[]) {
  InitSignals();
  CLog::instance()->Init(kLogDirectory, false);
  CThread::SetThreadName(kMainThreadName);
  const unsigned long uptime = GetCurTimeMilliSec();
  // Log readers find a start by this file name and line, which therefore stay as they are.
  LOGI(kBannerFormat, kProgramVersion, __DATE__, __TIME__, uptime);
  static_assert(__LINE__ == 168, "the banner's statement stands on line 167");
  CLog::instance()->System(kBannerFormat, kProgramVersion, __DATE__, __TIME__, uptime);

  AppReadOTAHost();
  LOGI("Build Commit ID: %s%s", kBuildCommitId, kBuildType);
  CDbusHandler::instance()->Init(kBusName);
  AppInit();
  while (!bExitFlag) XSleep(kExitPollMs);

  AppStop();
  CDbusHandler::instance()->CleanUp();
  tempFrame.reset();
  CLog::instance()->CleanUp();
  return 0;
}

namespace {

/// What several parts share. Never freed: after a crash other threads still use it.
struct Shared {
  DeviceVersions versions;
  PackageClaim claim;
  BatteryLevel battery;
  SysCtrlReports reports{versions, battery};
};

void AppInit() {
  static Shared& shared = *new Shared();
  // After a crash other threads still run inside the frame: it is not freed then.
  tempFrame.reset(new QVUpgradeFrameBase(shared.versions, shared.claim), [](QVUpgradeFrameBase* frame) {
    if (!CThread::HasCrashed()) delete frame;
  });
  tempFrame->Init();
  QVUpgradeAccessFrame* const access = QVUpgradeAccessFrame::getAccessFrame();
  access->Init(tempFrame.get(), shared.versions, shared.claim, shared.battery);
  SysCtrlIpc::instance()->SetReports(&shared.reports);
  DebugCommands::Register(shared.battery);
  UpgradeIpcMsg::GetUpgradeIpc()->Init();
  if (UpgradePp::instance()->Init(DeviceIdentity::kDeviceId)) {
    access->SetPpImportCallback(UpgradePp::instance()->GetImportCallback());
  }
  ErrorNum::instance()->Init(DeviceIdentity::kProductCode, kErrorRecordDirectory);
}

void AppCleanUp() {
  LOGD("app CleanUp");
  UpgradeIpcMsg::GetUpgradeIpc()->CleanUp();
  UpgradePp::instance()->CleanUp();
  ErrorNum::instance()->CleanUp();
}

void AppStop() {
  // All are asked to stop before the first is waited for, so that they end side by side.
  QVUpgradeAccessFrame::getAccessFrame()->RequestStop();
  PhyInterface::instance()->DestroyThread(true, false);
  tempFrame->RequestStop();
  UpgradePp::instance()->RequestStop();
  AppCleanUp();
  QVUpgradeAccessFrame::getAccessFrame()->CleanUp();
  PhyInterface::instance()->CleanUp();
  tempFrame->CleanUp();
}

}  // namespace
