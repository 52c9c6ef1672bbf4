/// What a portable part's radio module needs beside the exchange: where its files are and who hears the
/// result. There are no pins: the part has put its module into the boot loader when a run begins.
#include "UpgradePp/UpgPpRtx/UpgPpRtx.h"

#include "BSW/Log/CLog.h"

UpgPpRtx::UpgPpRtx() : RtxExchange("UpgPpRtx", "PpRtxUpgradeUart", m_iWaitTime) {}

UpgPpRtx::~UpgPpRtx() {
  CleanUp();
}

// ----------------------------------------------------------------------------------- asked by UpgradePp

void UpgPpRtx::RegUpgRxResultCallBack(const ResultCallBack& callback) {
  m_resultCb = callback;
}

bool UpgPpRtx::Init() {
  return IsRunning() || _OpenExchange();
}

bool UpgPpRtx::CleanUp() {
  return _CloseExchange();
}

bool UpgPpRtx::StartUpgrade(const std::string& directory, const std::string& device) {
  // Held until the directory is there: the accepted run looks for it.
  const std::lock_guard<std::mutex> lock(m_filesLock);
  if (!_StartRun(device.c_str())) {
    LOGE("Cannot start the RTX upgrade of the PP at %s", device.c_str());
    return false;
  }
  m_strDirectory = directory;
  return true;
}

void UpgPpRtx::StopUpgrad() {
  _AbortRun();
}

// ------------------------------------------------------------------------------------ asked by the exchange

bool UpgPpRtx::_PrepareFiles() {
  std::string directory;
  {
    const std::lock_guard<std::mutex> lock(m_filesLock);
    directory = m_strDirectory;
  }
  return _SetFiles(directory);
}

void UpgPpRtx::_EnterBoot() {
  LOGI("Waiting for the boot loader of the PP's RTX");
}

void UpgPpRtx::_ChunkProgrammed(size_t done, size_t total) {
  LOGD("RTX of the PP: programmed %zu of %zu", done, total);
}

void UpgPpRtx::_ModuleFailed() {}  // the callback tells

void UpgPpRtx::_RunEnded(bool success) {
  if (m_resultCb) m_resultCb(success, success ? std::string() : _FailureText());
}
