/// The portable-part firmware held on the base station, read from the store of packages and the file of
/// versions. UpgradePp is the only user. Nothing here writes but the unpacked 7308 archive, and the
/// directories when they are missing.
#pragma once

#include <string>

#include "UpgradePp/PpStore.h"
#include "UpgradePp/PpTypes.h"
#include "common/ThreadAnnotations.h"

class PpFirmware {
 public:
  static constexpr const char* m_strPpVerFile = "/config/pp_ver.json";

  /// Unpacks and reads all families; logs what is missing. With an empty file name are the 7204s without a
  /// package, and types that have but an entry in the file of versions: such a part can be paired. Of several
  /// packages of one family the one with the highest version counts. `root` stands before every path.
  ///
  /// Holds the store as long as unzip takes, and ends early at the calling thread's stop. Not from two
  /// threads at once, and not while an upgrade reads what is unpacked.
  static UpgPp::PpFwMap Load(const std::string& root = "") EXCLUDES(PpStore::Mutex());

 private:
  static void _Load7308FwInfo(const std::string& root, UpgPp::PpFwMap& held) REQUIRES(PpStore::Mutex());
  static void _Load7204FwInfo(const std::string& root, UpgPp::PpFwMap& held) REQUIRES(PpStore::Mutex());
  /// One of both hardwares; false when there is no usable package for it.
  static bool _Add7204(UpgPp::PpType type, const std::string& root, UpgPp::PpFwMap& held)
      REQUIRES(PpStore::Mutex());
  /// The package of `family` with the highest version; of equal ones the last by name. Empty when there is
  /// none. A name without a usable version counts as the lowest, so that it is told of when it is the only
  /// one.
  static std::string _FindPackage(const PpStore::Family& family, const char* extension,
                                  const std::string& root) REQUIRES(PpStore::Mutex());
  /// Unpacks the 7308's archive `name` so that afterwards there is its image, or none at all.
  static bool _Unpack(const PpStore::Family& family, const std::string& name, const std::string& root)
      REQUIRES(PpStore::Mutex());
  static void _LoadVersionFile(const std::string& path, UpgPp::PpFwMap& held);
  /// Sets version text and numbers; false, logged, when `version` is none.
  static bool _ParseVerNum(const std::string& version, UpgPp::PpFw_t& firmware);
};
