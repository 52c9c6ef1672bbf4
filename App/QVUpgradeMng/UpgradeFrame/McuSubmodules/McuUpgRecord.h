/// The record "McuUpgInfo.json" of the MCU's upgrade: which firmware is being written, and whether a power
/// cut interrupted that. The upgrader writes it; after a restart McuStartup looks into it.
#pragma once

#include <string>

/// A firmware image that is ready to be written.
struct FwInfo_t {
  std::string m_strVersion;   ///< as in the name of its archive, for example "1.0.6.30"
  std::string m_strFileName;  ///< the name that the boot loader is told
  std::string m_strFwPath;    ///< full path of the image
};

/// Holds no state but the path; every call reads or replaces the file. The file is replaced in one step that
/// survives a power cut. Used by one thread at a time.
class McuUpgRecord {
 public:
  /// The values of "UpgState": nothing is under way, or the MCU may be without a valid application.
  static constexpr const char* kStateIdle = "Idle";
  static constexpr const char* kStateUpgMcu = "UpgMcu";

  /// `directory` holds the record and exists.
  explicit McuUpgRecord(const std::string& directory);

  /// Replaces the record by one of `firmware` with state "Idle".
  [[nodiscard]] bool Save(const FwInfo_t& firmware) const;
  /// Reads the firmware; false, with `firmware` untouched, when the record does not describe a usable one.
  [[nodiscard]] bool Load(FwInfo_t& firmware) const;

  /// Changes the state and nothing else. "Idle" without a record needs no record. False, logged, on failure.
  [[nodiscard]] bool SaveState(const std::string& state) const;
  /// True when the record says "UpgMcu".
  [[nodiscard]] bool IsInterrupted() const;

 private:
  const std::string m_path;
};
