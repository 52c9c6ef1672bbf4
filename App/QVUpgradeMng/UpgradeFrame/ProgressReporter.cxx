/// Callback, increments and the final value of one upgrader. The log texts are what service looks for.
#include "UpgradeFrame/ProgressReporter.h"

#include <algorithm>

#include "BSW/Log/CLog.h"

bool ProgressReporter::Register(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  const CLock lock(m_mutex);
  if (cb == nullptr || m_UploadProcessCb) return false;
  m_UploadProcessCb = {cb, ctx};
  LOGI("Register UploadPrecentCallback OK.");
  return true;
}

bool ProgressReporter::Unregister(UPGRADE_UPLOADPROCESS_CALLBACK cb, void* ctx) {
  const CLock lock(m_mutex);
  const CCallbackInfo<UPGRADE_UPLOADPROCESS_CALLBACK> stored{cb, ctx};
  if (!m_UploadProcessCb || !(m_UploadProcessCb == stored)) return false;
  m_UploadProcessCb = {};
  LOGI("Unregister UploadPrecentCallback.");
  return true;
}

int ProgressReporter::Report(int percent) {
  CCallbackInfo<UPGRADE_UPLOADPROCESS_CALLBACK> callback;
  {
    const CLock lock(m_mutex);
    callback = m_UploadProcessCb;
    if (callback && m_bEnded) {
      LOGW("report %d after the end ignored type:%d", percent, m_type);
      return m_iResultWithoutCallback;
    }
    m_bEnded = callback && (percent < 0 || percent == kSuccess);
  }
  if (!callback) {
    LOGW("Not Register UartEvent Callback!");
    return m_iResultWithoutCallback;
  }
  return callback.pCbFun(percent, m_type, callback.pContext);
}

void ProgressReporter::ReportSteps(size_t done, size_t total) {
  if (total == 0) return;
  int increment = 0;
  {
    const CLock lock(m_mutex);
    const auto reached = static_cast<int>(std::min(done, total) * kMaxIncrements / total);
    increment = reached - m_iIncrements;
    if (increment <= 0) return;
    m_iIncrements = reached;
  }
  Report(increment);
}
