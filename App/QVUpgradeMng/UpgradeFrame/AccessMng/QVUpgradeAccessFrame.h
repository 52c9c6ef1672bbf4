/// The access frame: owns the package sources and passes a ready package on to the upgrade frame. Main alone
/// asks for it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BSW/MultiTask/CTaskQue.h"
#include "UpgradeFrame/AccessMng/AccessContext.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

class QVUpgradeAccessBase;

/// The version record after portable-part packages were imported.
using PpImportCallback = std::function<void(const AllVersion&)>;

class QVUpgradeAccessFrame {
 public:
  /// The singleton; it lives as long as the process. Any thread.
  static QVUpgradeAccessFrame* getAccessFrame();

  /// Main, once: loads the version record, creates and starts the sources. All of these outlive the process's
  /// threads. Always 0.
  int Init(QVUpgradeFrameBase* frame, DeviceVersions& versions, PackageClaim& claim, BatteryLevel& battery);
  /// Main, at shutdown: asks all sources to stop and returns at once; CleanUp then joins their threads.
  void RequestStop();
  void CleanUp();

  /// Callback of the sources, on their threads: `self` is the access frame. 0 when the frame took the
  /// package, else -1.
  static int AccessCallback(int accessType, void* self) {
    return static_cast<QVUpgradeAccessFrame*>(self)->_NotfiCationUpgrade(accessType);
  }

  /// Main, once, after Init: whom imports of portable-part packages are told to. `callback` runs on the
  /// source's thread with no lock held; for an import before this call at once, on the caller's.
  void SetPpImportCallback(const PpImportCallback& callback);

 private:
  QVUpgradeAccessFrame();
  ~QVUpgradeAccessFrame() = default;

  int _NotfiCationUpgrade(int accessType);
  /// Starts a source. Always true: the daemon works with the sources that can start.
  static bool _StartAccess(QVUpgradeAccessBase* source);
  /// A source changed the store of portable-part packages. Its thread.
  void _NotifyPpImported();

  std::unique_ptr<QVUpgradeAccessBase> m_pUdiskAccess;
  std::unique_ptr<QVUpgradeAccessBase> m_pWebsAccess;
  std::unique_ptr<QVUpgradeAccessBase> m_pOTAAccess;
  std::vector<QVUpgradeAccessBase*> m_sources;  ///< all of these, in the order in which they start and stop
  std::string m_fpgaVersion;
  // Set by Init alone, before the sources start.
  QVUpgradeFrameBase* m_pUpgradeFrame = nullptr;
  std::optional<AccessContext> m_context;
  CTaskQue m_taskQue{"AccessTask"};
  CMutex m_ppImportMutex;
  PpImportCallback m_ppImportCallback GUARDED_BY(m_ppImportMutex);
  bool m_bPpImportPending GUARDED_BY(m_ppImportMutex) = false;  ///< an import that nobody was told of

  static CMutex m_initmutex;
  static QVUpgradeAccessFrame* m_pAccessBase GUARDED_BY(m_initmutex);
};
