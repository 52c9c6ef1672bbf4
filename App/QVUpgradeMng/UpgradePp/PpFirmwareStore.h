/// The portable-part firmware held on the base station: reads the package directories below "/firmware/pp"
/// and the versions of "/config/pp_ver.json". UpgradePp is the only user. Nothing here writes but the
/// unpacked 7308 archive, and the directories when they are missing.
#pragma once

#include <string>

#include "UpgradePp/PpTypes.h"

class PpFirmwareStore {
 public:
  static constexpr const char* m_strFwPath = "/firmware/pp";
  static constexpr const char* m_strPpVerFile = "/config/pp_ver.json";

  /// What one load found. In `firmware` with an empty file name are the 7204s without a package, and types
  /// that have but an entry in the version file: such a part can be paired.
  struct Found {
    UpgPp::PpFwMap firmware;
    bool has7308 = false;
    bool has7204Dvt = false;
    bool has7204Evt = false;
  };

  /// Unpacks and reads all families; logs what is missing. False when no package of any family could be
  /// loaded; `found` holds what there is. Of several packages of one family the one with the highest version
  /// counts. Holds the store of packages as long as unzip takes, and ends early at the calling thread's stop.
  /// Not from two threads at once, and not while an upgrade reads what is unpacked.
  static bool Load(Found& found, const std::string& directory = m_strFwPath,
                   const std::string& versionFile = m_strPpVerFile);

 private:
  /// `directory` is the family's own and ends in "/".
  static void _Load7308FwInfo(const std::string& directory, Found& found);
  static void _Load7204FwInfo(const std::string& directory, Found& found);
  static bool _Add7204(const std::string& directory, const std::string& fileName, UpgPp::PpFw_t& firmware);
  static void _LoadVersionFile(const std::string& path, UpgPp::PpFwMap& firmware);
  /// Sets version text and numbers; false, logged, when `version` is none.
  static bool _ParseVerNum(const std::string& version, UpgPp::PpFw_t& firmware);
};
