/// The access frame: owns the package sources, the device's version record, the battery level and the claim
/// that lets one package through at a time, and passes a ready package on to the upgrade frame.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BSW/MultiTask/CTaskQue.h"
#include "UpgradeFrame/BatteryLevel.h"
#include "UpgradeFrame/DeviceVersions.h"
#include "UpgradeFrame/PackageClaim.h"
#include "UpgradeFrame/UpgradeTypes.h"

class QVUpgradeAccessSource;
class QVUpgradeFrameBase;

/// The version record after portable-part packages were imported.
using PpImportCallback = std::function<void(const AllVersion&)>;

/// Page type name to (sub-directory of the page root, type).
using UpgradeTypeNames = std::map<std::string, std::pair<std::string, UPGRADETYPE>>;

/// Any thread may call any member, unless said otherwise.
class QVUpgradeAccessFrame {
 public:
  static constexpr int kBatteryUnknown = BatteryLevel::kUnknown;

  /// The singleton; it lives as long as the process.
  static QVUpgradeAccessFrame* getAccessFrame();

  /// Main, once: takes the frame (not owned), reads the version record, creates and starts the sources.
  /// Always 0.
  int Init(QVUpgradeFrameBase* frame, DeviceVersions& versions, PackageClaim& claim, BatteryLevel& battery);
  /// Main, at shutdown: asks all sources to stop and returns at once; CleanUp then joins their threads.
  void RequestStop();
  void CleanUp();

  /// Callback of the sources: `self` is the access frame. 0 when the frame took the package, else -1.
  static int AccessCallback(int accessType, void* self);

  /// The claim on the one package under way. A source takes it before it touches the page, and gives it back
  /// when it ends without a start; after a start it is kept until the reboot.
  bool TryClaim() { return m_pClaim->TryClaim(); }
  void ReleaseClaim() { m_pClaim->ReleaseClaim(); }
  bool IsClaimed() const { return m_pClaim->IsClaimed(); }
  bool GetStartUpgrade() const { return m_pClaim->GetStartUpgrade(); }
  void setmStartUpgrade(bool started) { m_pClaim->setmStartUpgrade(started); }
  int GetBattery() { return m_pBattery->GetBattery(); }
  void SetBattery(int level) { m_pBattery->SetBattery(level); }
  bool IsBatteryLow() { return m_pBattery->IsBatteryLow(); }
  void SwitchBatteryLimited(bool on) { m_pBattery->SwitchBatteryLimited(on); }
  AllVersion getAllVersion() { return m_pVersions->getAllVersion(); }
  void setAllVersion(const AllVersion& versions) { m_pVersions->setAllVersion(versions); }
  void SetVersion(const std::function<void(AllVersion&)>& change) { m_pVersions->SetVersion(change); }
  void SetNewOverallVersion(const OTAVersion& overall) { m_pVersions->SetNewOverallVersion(overall); }
  bool SendVersionUI() { return m_pVersions->SendVersionUI(); }

  static UpgradeTypeNames getUpgradeTypeName();

  /// Main, once: whom imports of portable-part packages are told to. `callback` runs on the source's thread
  /// with no lock held; for an import before this call at once, on the caller's.
  void SetPpImportCallback(const PpImportCallback& callback);
  /// A source imported portable-part packages into their store.
  void NotifyPpImported();

  /// Tells the frame which source prepared the page.
  void setUpgradeType(UPGRADEACCESSTYPE type);

 private:
  QVUpgradeAccessFrame();
  ~QVUpgradeAccessFrame() = default;

  int _NotfiCationUpgrade(int accessType);
  /// Starts a source. Always true: the daemon works with the sources that can start.
  static bool _StartAccess(QVUpgradeAccessSource* source);
  /// The sources that were created, in the order in which they start and stop.
  std::vector<QVUpgradeAccessSource*> _Sources() const;
  DeviceVersions m_ownVersions;  // of a unit test that calls no Init
  PackageClaim m_ownClaim;
  BatteryLevel m_ownBattery;
  DeviceVersions* m_pVersions = &m_ownVersions;
  PackageClaim* m_pClaim = &m_ownClaim;
  BatteryLevel* m_pBattery = &m_ownBattery;
  std::unique_ptr<QVUpgradeAccessSource> m_pUdiskAccess;
  std::unique_ptr<QVUpgradeAccessSource> m_pWebsAccess;
  std::unique_ptr<QVUpgradeAccessSource> m_pOTAAccess;
  std::string m_fpgaVersion;
  QVUpgradeFrameBase* m_pUpgradeFrame = nullptr;  ///< not owned; set by Init alone
  CTaskQue m_taskQue{"AccessTask"};
  std::mutex m_ppImportMutex;  ///< guards the two below
  PpImportCallback m_ppImportCallback;
  bool m_bPpImportPending = false;  ///< an import that nobody was told of

  static std::mutex m_initmutex;  ///< guards the creation
  static QVUpgradeAccessFrame* m_pAccessBase;
};
