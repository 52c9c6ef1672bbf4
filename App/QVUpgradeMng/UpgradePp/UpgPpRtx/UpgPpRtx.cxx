/// What a portable part's radio module needs beside the exchange: where its files are and who hears the
/// result. There are no pins: the part has put its module into the boot loader when a run begins.
#include "UpgradePp/UpgPpRtx/UpgPpRtx.h"

#include "BSW/Log/CLog.h"

bool UpgPpRtx::StartUpgrade(const std::string& directory, const std::string& device) {
  // Held until the directory is there: the accepted run looks for it.
  const CLock lock(m_filesLock);
  if (!m_exchange.StartRun(device.c_str())) {
    LOGE("Cannot start the RTX upgrade of the PP at %s", device.c_str());
    return false;
  }
  m_strDirectory = directory;
  return true;
}

Failure UpgPpRtx::PrepareFiles(std::string& directory) {
  const CLock lock(m_filesLock);
  directory = m_strDirectory;
  return {};
}

void UpgPpRtx::EnterBoot(int /*module*/) {
  LOGI("Waiting for the boot loader of the PP's RTX");
}

void UpgPpRtx::ChunkProgrammed(int /*module*/, size_t done, size_t total) {
  LOGD("RTX of the PP: programmed %zu of %zu", done, total);
}

void UpgPpRtx::RunEnded(int /*module*/, const Failure& failure) {
  if (failure) LOGE("RTX of the PP: %s", failure.Text().c_str());
  if (m_resultCb) m_resultCb(!failure, failure ? m_exchange.FailureText() : std::string());
}
