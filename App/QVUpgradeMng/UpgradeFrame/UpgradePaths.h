/// The one home of the fixed paths that more than one class of the upgrade uses.
#pragma once

namespace UpgradePaths {

inline constexpr const char* kAppA = "/app_A";
inline constexpr const char* kAppB = "/app_B";

/// Page root: the unpacked package, one directory per part below it, and the staging directory of an RRU
/// archive.
inline constexpr const char* kPage = "/firmware/upload/page";
inline constexpr const char* kPageRruStaging = "/firmware/upload/page/temp_all_ota";
inline constexpr const char* kPagePp = "/firmware/upload/page/pp";
inline constexpr const char* kPageSystem = "/firmware/upload/page/system";

/// Where web uploads and downloads arrive and are unpacked first, and where an installed package is kept.
inline constexpr const char* kDownload = "/firmware/webs/download";
inline constexpr const char* kNewPackage = "/firmware/webs/new_package";
/// What the names of a download and of its records end in until all of it has arrived.
inline constexpr const char* kUnfinishedExtension = ".part";

inline constexpr const char* kManifestName = "version.json";

/// Installed versions, below a partition root.
inline constexpr const char* kVersionFile = "/quorvalen/version.json";

/// Holds the base URL of the cloud backend, and a flag when that was set on purpose.
inline constexpr const char* kOtaHostFile = "/qv_data/config/upgradeOtaPath.json";
inline constexpr const char* kOtaHostKey = "host";
inline constexpr const char* kOtaHostSetKey = "web_or_oled_set_flag";

}  // namespace UpgradePaths
