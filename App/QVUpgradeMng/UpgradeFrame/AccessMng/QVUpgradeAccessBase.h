/// One way of a package, whatever source it came from: the states from its arrival to the start of the frame,
/// on a thread of the source's own. A source derives from it and adds how a package arrives and which unpack
/// it takes. The steps behind the states are PackageUnpack and PackageCheck; everything in a package is taken
/// for hostile until they have checked it. The access frame owns all sources.
#pragma once

#include <string>

#include "BSW/StateMachine/StateMachine.h"
#include "UpgradeFrame/AccessMng/AccessContext.h"
#include "UpgradeFrame/UpgradeTypes.h"
#include "UpgradeIpcMsg/PannelIpc/DeviceUpgradeUIIPC.h"
#include "UpgradePackage/Reasons.h"
#include "common/CallbackInfo.h"

/// How a source tells that its package is ready: access type and the user data of the registration. 0 when
/// taken.
using START_UPGRADE_CALLBACK = int (*)(int accessType, void* userData);

class QVUpgradeAccessBase : public StateMachine<QVUpgradeAccessBase> {
 public:
  enum RetType {
    EM_RET_SUCCESS = 0,
    EM_RET_FAILED = 1,
    EM_RET_NO_NEED = 2,  ///< the package's version is installed already
  };

  /// Stores the one callback. False when one is stored already or `callback` is null. Only while the source
  /// is not started, like the next.
  virtual bool RegisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData);
  /// Removes the stored callback; false when it is another one.
  virtual bool UnregisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData);

  /// Begins to listen for packages. False, logged, when that is not possible.
  bool Start();
  /// Asks the source to stop and returns at once. A command that runs is let finish; no further one starts.
  void RequestStop();
  /// Ends listening and joins the thread. Every derived destructor calls it.
  void CleanUp();

 protected:
  QVUpgradeAccessBase(const char* threadName, UPGRADEACCESSTYPE accessType, AccessContext access);

  /// Main's thread; _Unlisten only after a _Listen that succeeded.
  virtual bool _Listen() = 0;
  virtual void _Unlisten() = 0;
  /// Waits in "Idle". True: a package is there and claimed; false: none after all, or the thread was asked to
  /// stop.
  virtual bool _WaitForPackage() = 0;
  /// Brings a package that is still elsewhere onto the disk.
  virtual Failure _FetchPackage() { return {}; }
  virtual Failure _UnpackPackage() = 0;
  /// Hands the prepared package to the frame; false while the frame does not take it.
  virtual bool _StartFrame();
  /// The package ended without a start, and the panel knows: a source gives back what it holds. Afterwards
  /// the unit is rebooted when it must be, and the claim given back.
  virtual void _PackageEnded(const Failure& /*failure*/) {}

  /// Takes the claim on the one package under way; false, logged, when another package has it. Any thread.
  bool _Claim();
  /// Refuses a package when the battery is low. Any thread.
  Failure _CheckBattery();
  /// The one end of a claimed package without a start: tells the panel and the log why, reboots the unit when
  /// it must not go on with half a page, and gives the claim back. Any thread.
  void _EndWithoutStart(const Failure& failure);
  /// Tells the panel a status of the base station, with how much of it is done, or what belongs to a reason.
  /// Any thread.
  static void _ReportStatus(UiUpgradeStatus status, int percent = 0);
  static void _TellPanel(Reasons::Panel panel);
  /// Pins the interrupts of radio and audio to their usual cores, or, with `change`, frees them for all cores
  /// while the network needs them. They are pinned even when the calling thread was asked to stop. A failure
  /// is logged.
  static void _SetSmpAffinityToCpu0(bool change);

  const UPGRADEACCESSTYPE m_accessType;
  const AccessContext m_access;

 private:
  std::string _IdleState();
  std::string _Preprocess();
  std::string _CheckState();
  std::string _NotifyState();
  std::string _SuccessState();
  std::string _FaildState();
  /// The package ends here: in "Faild", where `failure` is told.
  std::string _Refuse(Failure failure);
  static RetType _ResultOf(const Failure& failure);
  void _FailAndReboot(Reason reason);

  static const Table m_MapStateMachineFunc;
  bool m_bListening = false;  ///< main's thread only
  Failure m_failure;          ///< why the package under way ends; source's thread only
  CCallbackInfo<START_UPGRADE_CALLBACK> m_callback;
};
