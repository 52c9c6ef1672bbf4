/// What the package sources share: the states from a package's arrival to the start of the frame, on a thread
/// of their own. A source adds how a package arrives and which unpack it takes. The access frame owns all
/// sources.
#pragma once

#include <string>

#include "UpgradeFrame/AccessMng/QVUpgradeAccessBase.h"
#include "UpgradeFrame/StateMachine.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "common/CallbackInfo.h"

class QVUpgradeAccessSource : public StateMachine<QVUpgradeAccessSource>, public QVUpgradeAccessBase {
 public:
  /// Only while the source is not started.
  bool RegisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData) override;
  bool UnregisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData) override;

  /// Begins to listen for packages. False, logged, when that is not possible.
  bool Start();
  /// Asks the source to stop and returns at once. A command that runs is let finish; no further one starts.
  void RequestStop();
  /// Ends listening and joins the thread. Every derived destructor calls it.
  virtual void CleanUp();

 protected:
  QVUpgradeAccessSource(const char* threadName, UPGRADEACCESSTYPE accessType);

  /// Main's thread; _Unlisten only after a _Listen that succeeded.
  virtual bool _Listen() = 0;
  virtual void _Unlisten() = 0;
  /// Waits in "Idle". True: a package is there and claimed; false: none after all, or the thread was asked to
  /// stop.
  virtual bool _WaitForPackage() = 0;
  /// Brings a package that is still elsewhere onto the disk. False: it ends here, as a failure unless
  /// reported.
  virtual bool _FetchPackage() { return true; }
  virtual bool _UnpackPackage() = 0;
  /// Hands the prepared package to the frame; false while the frame does not take it.
  virtual bool _StartFrame();
  /// The package ended without a start; its claim is given back afterwards.
  virtual void _PackageEnded() {}

  /// Takes the claim on the one package under way; false, logged, when another package has it. Any thread.
  static bool _Claim();
  /// Refuses a package, to the panel and in the log, when the battery is low. Any thread.
  static bool _RefuseLowBattery();

  void _ReportStatus(int status) override;

  const UPGRADEACCESSTYPE m_accessType;

 private:
  std::string _IdleState();
  std::string _Preprocess();
  std::string _CheckState();
  std::string _NotifyState();
  std::string _SuccessState();
  std::string _FaildState();
  void _EndWithoutStart();

  static const Table m_MapStateMachineFunc;
  bool m_bListening = false;  ///< main's thread only
  bool m_bReported = false;   ///< the panel knows how the package ended; source's thread only
  CCallbackInfo<START_UPGRADE_CALLBACK> m_callback;
};
