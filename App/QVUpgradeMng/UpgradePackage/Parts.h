/// The parts of a unit, one row each: everything about a part that is a value and not code. Whoever needs a
/// list of parts walks these rows. An eighth chip gets a row here, a case in SubmoduleFactory.cxx and its own
/// files; Docs/adding-a-part.md tells the steps.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "UpgradeFrame/UpgradeTypes.h"

namespace Parts {

/// Starts with the first parts, without waiting for anything.
inline constexpr UPGRADETYPE kBehindNothing = UP_NO_TYPE;
/// In a start order: not in it by itself.
inline constexpr int kNoPlace = 0;

/// The two sides of the unit, in the order of a row's targets: what belongs to "/app_A" and to "/app_B".
enum Side : size_t { kSideA = 0, kSideB = 1 };

struct Part {
  UPGRADETYPE type;
  /// As package lists name it; also its sub-directory of the page root and the middle of its reasons.
  std::string_view page;
  /// Its version: the key in version records and reports, and the field.
  const char* versionKey;
  std::string QVUpgradeVersionInfo::*version;

  /// True for a part of the base station itself; the others are portable parts, which packages only bring.
  bool isStation;
  /// Its place among the parts that start at once when the package has no radio firmware, and among those
  /// that start when the radio modules have ended, from 1. The radio modules start before all.
  int placeWithoutRadio;
  int placeAfterRadio;
  /// The part behind which it starts, with each report of that, or in whose place when the package has none.
  UPGRADETYPE startsBehind;

  /// What its upgrade writes to, by side: a mount point, a device, a port. The same twice for a chip, which
  /// has no second copy.
  std::array<const char*, 2> target;
  /// What shows that the target holds the new firmware whole.
  const char* proof;
};

using Versions = QVUpgradeVersionInfo;

/// In the order of UPGRADETYPE, so that a type finds its row by its number.
// clang-format off
inline constexpr std::array<Part, UP_LAST_TYPE> kAll = {{
    {UP_APP, "app", "appVersion", &Versions::m_appVersion, true, 2, 3, kBehindNothing,
     {"/app_A", "/app_B"}, "unpacked without error"},
    {UP_SYSTEM, "system", "systemVersion", &Versions::m_systemVersion, true, 3, 4, kBehindNothing,
     {"/run/media/mmcblk2p1", "/run/media/mmcblk2p5"}, "copied without error"},
    {UP_FPGA, "fpga", "fpgaVersion", &Versions::m_fpgaVersion, true, kNoPlace, kNoPlace, UP_UAC,
     {"/dev/upgrade_fpga", "/dev/upgrade_fpga"}, "its device took all of the image"},
    {UP_RTX, "rtx", "rtxVersion", &Versions::m_rtxVersion, true, kNoPlace, kNoPlace, kBehindNothing,
     {"/dev/ttymxc2 /dev/ttymxc0", "/dev/ttymxc2 /dev/ttymxc0"}, "CRC-32 of its flash"},
    {UP_UAC, "uac", "uacVersion", &Versions::m_uacVersion, true, 1, 1, kBehindNothing,
     {"/dev/ttyCH341USB0", "/dev/ttyCH341USB0"}, "acknowledgement of the last block"},
    {UP_MCU, "mcu", "mcuVersion", &Versions::m_mcuVersion, true, 5, 2, kBehindNothing,
     {"/dev/ttymxc3", "/dev/ttymxc3"}, "its answer after the transfer"},
    {UP_ROOTFS, "rootfs", "rootfsVersion", &Versions::m_rootfsVersion, true, 4, 5, kBehindNothing,
     {"/dev/mmcblk2p2", "/dev/mmcblk2p3"}, "used size of the new file system"},
    {UP_7204, "7204", "7204Version", &Versions::m_7204Version, false, kNoPlace, kNoPlace, kBehindNothing,
     {"/firmware/pp/7204/", "/firmware/pp/7204/"}, "synced into its store"},
    {UP_7204_EVT, "7204_EVT", "7204EvtVersion", &Versions::m_7204EvtVersion, false, kNoPlace, kNoPlace,
     kBehindNothing, {"/firmware/pp/7204/", "/firmware/pp/7204/"}, "synced into its store"},
    {UP_7308, "7308", "7308Version", &Versions::m_7308Version, false, kNoPlace, kNoPlace, kBehindNothing,
     {"/firmware/pp/7308/", "/firmware/pp/7308/"}, "synced into its store"},
}};
// clang-format on

namespace Detail {
constexpr bool RowsFollowTypes() {
  for (size_t row = 0; row < kAll.size(); ++row) {
    if (kAll[row].type != static_cast<UPGRADETYPE>(row + 1)) return false;
  }
  return true;
}
}  // namespace Detail
static_assert(Detail::RowsFollowTypes(), "each type has its row, in the order of the types");

/// The row of a type; null for UP_NO_TYPE and numbers that are none.
constexpr const Part* Find(UPGRADETYPE type) {
  return type > UP_NO_TYPE && type <= UP_LAST_TYPE ? &kAll[static_cast<size_t>(type) - 1] : nullptr;
}

/// The row of a page word; null for an unknown one.
constexpr const Part* Find(std::string_view page) {
  for (const Part& part : kAll) {
    if (part.page == page) return &part;
  }
  return nullptr;
}

/// The part of the base station that a package's page type names; null for any other word.
constexpr const Part* getUpgradeTypeName(std::string_view page) {
  const Part* const part = Find(page);
  return part != nullptr && part->isStation ? part : nullptr;
}

/// The target of a part on the side of `partition`, "/app_A" or "/app_B"; null for any other text.
constexpr const char* TargetOn(const Part& part, std::string_view partition) {
  for (const Side side : {kSideA, kSideB}) {
    if (partition == Find(UP_APP)->target[side]) return part.target[side];
  }
  return nullptr;
}

}  // namespace Parts
