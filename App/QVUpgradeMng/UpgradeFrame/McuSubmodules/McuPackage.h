/// The MCU's page of an upgrade package: a tar that holds one zip, named with the firmware's version, that
/// holds the image. Unpacked by the MCU upgrader before it talks to the chip.
#pragma once

#include <cstddef>
#include <string>

#include "UpgradeFrame/McuSubmodules/McuUpgRecord.h"
#include "UpgradePackage/Reasons.h"

namespace McuPackage {

/// The oldest firmware that this base station works with.
constexpr const char* m_strMinCompatibleVer = "1.0.6.30";

/// More than any image of this MCU; a larger one is refused before the MCU gives up its application.
constexpr size_t kMaxImageBytes = 16U * 1024U * 1024U;

/// Empties or creates `directory`, unpacks `package` there and describes the image in `firmware`; the image
/// is on the disk then, not only in memory. Fails also when the firmware is older than m_strMinCompatibleVer,
/// and as stopped when the calling thread is asked to stop.
Failure Unpack(const std::string& package, const std::string& directory, FwInfo_t& firmware);

}  // namespace McuPackage
