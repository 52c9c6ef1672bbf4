/// The access frame: owns the package sources, the device's version record, the battery level and the claim
/// that lets one package through at a time, and passes a ready package on to the upgrade frame.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "BSW/MultiTask/CTaskQue.h"
#include "UpgradeFrame/IUpgradeAccess.h"
#include "UpgradeFrame/UpgradeTypes.h"

class QVUpgradeAccessSource;
class QVUpgradeFrameBase;

/// The version record after portable-part packages were imported.
using PpImportCallback = std::function<void(const AllVersion&)>;

/// Any thread may call any member, unless said otherwise.
class QVUpgradeAccessFrame : public IUpgradeAccess {
 public:
  enum CfgType {
    EM_CFG_MIN_BATTERY_VAL = 5,  ///< percent; the highest level that still counts as low
  };

  /// Battery level before the first report.
  static constexpr int kBatteryUnknown = 255;

  /// The singleton; it lives as long as the process.
  static QVUpgradeAccessFrame* getAccessFrame();

  /// Main, once: takes the frame (not owned), reads the version record, creates and starts the sources.
  /// Always 0.
  int Init(QVUpgradeFrameBase* frame);
  /// Main, at shutdown: asks all sources to stop and returns at once; CleanUp then joins their threads.
  void RequestStop();
  void CleanUp();

  /// Callback of the sources: `self` is the access frame. 0 when the frame took the package, else -1.
  static int AccessCallback(int accessType, void* self);

  /// The claim on the one package under way. A source takes it before it touches the page, and gives it back
  /// when it ends without a start; after a start it is kept until the reboot.
  bool TryClaim();
  void ReleaseClaim();
  bool IsClaimed() const { return m_bClaimed; }

  bool GetStartUpgrade() const { return m_startUpgrade; }
  void setmStartUpgrade(bool started) override { m_startUpgrade = started; }
  std::string getCurrentPart() const { return m_currptten; }
  UpgradeTypeNames getUpgradeTypeName() override;

  /// Battery level in percent; 255 when never reported.
  int GetBattery();
  void SetBattery(int level);
  /// True when the limit is on and the level is 0 to 5.
  bool IsBatteryLow();
  void SwitchBatteryLimited(bool on);
  bool IsBatteryLimited() const { return m_bLimited; }

  AllVersion getAllVersion() override;
  /// Replaces the record and writes the running partition's version file.
  void setAllVersion(const AllVersion& versions);
  void SetVersion(const std::function<void(AllVersion&)>& change) override;
  /// Notes the overall versions of the package being prepared, without writing the file.
  void SetNewOverallVersion(const OTAVersion& overall);

  /// Main, once: whom imports of portable-part packages are told to. `callback` runs on the source's thread
  /// with no lock held; for an import before this call at once, on the caller's.
  void SetPpImportCallback(const PpImportCallback& callback);
  /// A source imported portable-part packages into their store.
  void NotifyPpImported();

  bool SendVersionUI() override;
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
  /// Writes the installed versions into the running partition's file and keeps its "otaList". m_versionMutex
  /// is held.
  bool _WriteVersionToFile(const AllVersion& versions);
  /// Reads the running partition's file; what it lacks takes its default.
  bool _ReadVersionToFile();

  std::atomic<bool> m_startUpgrade{false};
  int m_iBattery = kBatteryUnknown;
  std::atomic<bool> m_bLimited{true};
  std::unique_ptr<QVUpgradeAccessSource> m_pUdiskAccess;
  std::unique_ptr<QVUpgradeAccessSource> m_pWebsAccess;
  std::unique_ptr<QVUpgradeAccessSource> m_pOTAAccess;
  std::mutex m_upgradeTypeNameMutx;  ///< guards m_iBattery and m_upgradeTypeName
  UpgradeTypeNames m_upgradeTypeName;
  std::mutex m_versionMutex;  ///< guards m_allVersion and the version file
  AllVersion m_allVersion;
  std::string m_currptten;  ///< running partition's version file; set by Init alone
  std::string m_fpgaVersion;
  QVUpgradeFrameBase* m_pUpgradeFrame = nullptr;  ///< not owned; set by Init alone
  std::atomic<bool> m_bClaimed{false};            ///< a package is under way
  CTaskQue m_taskQue{"AccessTask"};
  std::mutex m_ppImportMutex;  ///< guards the two below
  PpImportCallback m_ppImportCallback;
  bool m_bPpImportPending = false;  ///< an import that nobody was told of

  static std::mutex m_initmutex;  ///< guards the creation
  static QVUpgradeAccessFrame* m_pAccessBase;
};
