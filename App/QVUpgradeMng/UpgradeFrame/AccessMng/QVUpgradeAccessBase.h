/// The common path of a package, whatever source it came from: prepare the page directory, check the name,
/// unpack, check the manifest, move the parts' archives to where the frame finds them. A source derives from
/// it and calls the steps in this order on its own thread. Everything in a package is taken for hostile until
/// it has been checked.
#pragma once

#include <json/json.h>

#include <string>

#include "UpgradeFrame/UpgradeTypes.h"

/// How a source tells that its package is ready: access type and the user data of the registration. 0 when
/// taken.
using START_UPGRADE_CALLBACK = int (*)(int accessType, void* userData);

/// No data of its own. Once the calling thread was asked to stop, no step starts a further command but the
/// pinning of interrupts, and a step that was cut short gives a failure without reporting it and without a
/// reboot.
class QVUpgradeAccessBase {
 public:
  enum RetType {
    EM_RET_SUCCESS = 0,
    EM_RET_FAILED = 1,
    EM_RET_NO_NEED = 2,  ///< the package's version is installed already
  };

  QVUpgradeAccessBase() = default;
  virtual ~QVUpgradeAccessBase() = default;
  QVUpgradeAccessBase(const QVUpgradeAccessBase&) = delete;
  QVUpgradeAccessBase& operator=(const QVUpgradeAccessBase&) = delete;

  /// Stores the one callback. False when one is stored already or `callback` is null.
  virtual bool RegisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData) = 0;
  /// Removes the stored callback; false when it is another one.
  virtual bool UnregisterUploadPrecentCallback(START_UPGRADE_CALLBACK callback, void* userData) = 0;

 protected:
  /// Creates the page root and its sub-directories and frees the space that old core dumps take.
  static void InitUpgradeFilePath();

  /// Finds the package in the directory `path` (UP_UDISK), or takes the package `path` (UP_WEBS), and unpacks
  /// it into the page root; it refuses an installed version. False: the panel knows why, except while another
  /// package is being upgraded. A failed copy or unpack has rebooted the unit.
  bool Unpack(UPGRADEACCESSTYPE accessType, const std::string& path);

  /// Unpacks the package `path` (UP_WEBS, UP_OTA) in the download directory, copies what the manifest names
  /// into the page root and deletes the package. `checkVersion` refuses an installed version.
  bool UnpackWebAndOTA(UPGRADEACCESSTYPE accessType, const std::string& path, bool checkVersion);

  /// Checks the page root against the `current` versions: imports portable-part packages, and unpacks the
  /// base station's archive into the staging directory. A RetType: that of the base station's element,
  /// EM_RET_FAILED when there is none.
  int CheckPack(const AllVersion& current);

  /// Moves the parts' archives from the staging directory to their page directories. A failure reboots the
  /// unit.
  bool MovePack();

  /// Pins the interrupts of radio and audio to their usual cores, or, with `change`, frees them for all cores
  /// while the network needs them. They are pinned even when the calling thread was asked to stop.
  static void _SetSmpAffinityToCpu0(bool change);

  /// Sends a status of the base station to the panel.
  virtual void _ReportStatus(int status);
  /// Called before a failure reboots the unit: a source gives back what it holds.
  virtual void _BeforeReboot() {}

  bool _CheckPackName(UPGRADEACCESSTYPE accessType, const std::string& fileName, bool checkVersion);
  /// Compares the file's digest with `md5`; `computed`, when wanted, gets the digest. A file that cannot be
  /// read matches nothing.
  static bool _CheckFileMd5Sum(const std::string& path, const std::string& md5,
                               std::string* computed = nullptr);
  int _CheckRruPack(const AllVersion& current, const Json::Value& item);
  /// Imports a portable-part package into the store, and its versions into `versions` and the access frame's
  /// record.
  static bool _CheckPpPack(AllVersion& versions, const Json::Value& item);
  /// Copies manifest and named archives from the download directory to the page root. False: no readable
  /// manifest.
  static bool _MoveUpgradePage();

 private:
  /// Copies the stick's package to `target`, by the shell when copying it ourselves fails.
  static bool _CopyPack(const std::string& source, const std::string& target);
  /// Kills what needs the memory, unpacks `archive` into `directory`, and reboots the unit when that fails.
  bool _UnpackArchive(const std::string& archive, const char* directory);
  bool _NoTask();
  /// The steps of _CheckPpPack: all families, counted in `imported`, and one of them. Errors are thrown to
  /// _CheckPpPack; what was imported before stays.
  static void _ImportPpPack(AllVersion& versions, const Json::Value& item, int& imported);
  static bool _ImportPpFamily(AllVersion& versions, const Json::Value& package);
  static bool _MovePages();
  /// Reports -1 and reboots the unit, which must not go on with half a page. `lastLine` is logged before the
  /// reboot.
  void _FailAndReboot(const char* lastLine = nullptr);
};
