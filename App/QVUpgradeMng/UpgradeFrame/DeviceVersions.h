/// The device's version record: what is installed, in memory and in the version file of the running
/// partition, which is written here alone. Made by main, loaded by the access frame; sources, frame and the
/// controller's reports read and change it.
///
/// A file that is there but cannot be read is never written: what it holds may still be saved, and defaults
/// would be taken for what is installed.
#pragma once

#include <json/json.h>

#include <functional>
#include <string>

#include "UpgradeFrame/UpgradeTypes.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call any member.
class DeviceVersions {
 public:
  /// Takes `file` as the running partition's version file and reads it; a missing or unusable one, logged,
  /// leaves the defaults.
  void Load(const std::string& file);
  /// False until Load: the record holds nothing yet.
  bool IsLoaded() { return !getCurrentPart().empty(); }

  /// The version file; empty until Load.
  std::string getCurrentPart() {
    const CLock lock(m_versionMutex);
    return m_currptten;
  }

  AllVersion getAllVersion() {
    const CLock lock(m_versionMutex);
    return m_allVersion;
  }
  /// Replaces the record and writes the file; no caller yet.
  void setAllVersion(const AllVersion& versions) {
    SetVersion([&versions](AllVersion& record) { record = versions; });
  }
  /// Applies `change`, which must not call back, to the record and writes the file; a missing one is made,
  /// one that could not be read is kept as it is.
  void SetVersion(const std::function<void(AllVersion&)>& change);
  /// The same for what a chip says of itself at a start, which is no reason to make a file.
  void NoteVersion(const std::function<void(AllVersion&)>& change);
  /// Notes the overall versions of the package being prepared, without writing the file.
  void SetNewOverallVersion(const OTAVersion& overall) {
    const CLock lock(m_versionMutex);
    m_allVersion.m_newOverallVer = overall;
  }

  /// Sends the version report to the panel.
  bool SendVersionUI();

 private:
  void _Change(const std::function<void(AllVersion&)>& change, bool mayCreate);
  bool _ReadVersionToFile() REQUIRES(m_versionMutex);
  void _WriteVersionToFile() REQUIRES(m_versionMutex);

  CMutex m_versionMutex;  ///< also held while the file is read or written
  AllVersion m_allVersion GUARDED_BY(m_versionMutex);
  Json::Value m_otaList GUARDED_BY(m_versionMutex);  ///< the file's, kept as it is
  std::string m_currptten GUARDED_BY(m_versionMutex);
  bool m_bKnown GUARDED_BY(m_versionMutex) = false;  ///< the file was read, or written by us
  bool m_bRefusalLogged GUARDED_BY(m_versionMutex) = false;
};
