/// The vocabulary of an upgrade, shared by everything above the platform: what can be upgraded, where
/// packages come from, and the records that carry versions. Plain values; numbers are fixed, since peers and
/// logs show them.
#pragma once

#include <cstdint>
#include <string>

/// The parts that can be upgraded.
enum UPGRADETYPE : int32_t {
  UP_NO_TYPE = 0,
  UP_APP = 1,     ///< application file system
  UP_SYSTEM = 2,  ///< kernel and boot files
  UP_FPGA = 3,
  UP_RTX = 4,  ///< both radio modules
  UP_UAC = 5,  ///< USB audio chip
  UP_MCU = 6,
  UP_ROOTFS = 7,
  UP_7204 = 8,      ///< portable part, first family
  UP_7204_EVT = 9,  ///< portable part, first family, EVT hardware
  UP_7308 = 10,     ///< portable part, second family
};
/// The last of the types, which are numbered without a gap.
inline constexpr UPGRADETYPE UP_LAST_TYPE = UP_7308;

/// Where a package came from.
enum UPGRADEACCESSTYPE : int32_t {
  UP_NO_ACCESSTYPE = 0,
  UP_UDISK = 1,
  UP_WEBS = 2,
  UP_OTA = 3,
  UP_CONNECT = 4,
};

/// State of one part's upgrade.
enum UPGRADESTATUS : int32_t {
  UPG_NO_TASK = 0,
  UPG_PREPROCESS = 1,
  UPG_CHECK = 2,
  UPG_UPGRADING = 3,
  UPG_UPGRAD_SUCCESS = 4,
  UPG_UPGRAD_ERROR = 5,
  UPG_SWITCH_PARTITION = 6,
};

/// One part's upgrade.
struct QVUpgradingInfo {
  UPGRADETYPE m_modeulesType = UP_NO_TYPE;
  UPGRADESTATUS m_upgradeStatus = UPG_NO_TASK;
  int m_upgradeProgress = 0;      ///< last reported value
  std::string m_flashPartition;   ///< target partition root, "/app_A" or "/app_B"
  std::string m_upgradeFilePath;  ///< full path of the payload
  std::string m_upgradeVersion;   ///< version the part is being upgraded to
  std::string m_upgradFileName;   ///< the payload's file name
};

/// An overall version, for example "S4.0.9.10" on "H200".
struct OTAVersion {
  std::string m_softVersion;
  std::string m_hardVersion;
};

/// The version of each part, "V0.0.0.00" where none is known.
struct QVUpgradeVersionInfo {
  std::string m_fpgaVersion;
  std::string m_rtxVersion;
  std::string m_mcuVersion;
  std::string m_uacVersion;
  std::string m_7204Version;
  std::string m_7204EvtVersion;
  std::string m_7308Version;
  std::string m_appVersion;
  std::string m_systemVersion;
  std::string m_rootfsVersion;
};

struct AllVersion {
  OTAVersion m_oldOverallVer;            ///< installed
  OTAVersion m_newOverallVer;            ///< of the package being installed
  QVUpgradeVersionInfo m_SubmodulesVer;  ///< installed
};

/// Who this device is to the cloud backend and in its records.
namespace DeviceIdentity {
inline constexpr const char* kProductCode = "K9031";
inline constexpr const char* kDeviceId = "RRU01";
}  // namespace DeviceIdentity

/// A version that is absent, in records and in panel messages.
inline constexpr const char* kNoVersion = "V0.0.0.00";
