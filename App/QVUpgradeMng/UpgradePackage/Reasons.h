/// Why a package was refused, or an upgrade failed: one short word a cause, from the package's name to its
/// last part. Whoever understands a cause returns its reason, with the context in words, and nobody on the
/// way up tells it again: it is told where the work ends. Docs/refusals.md explains each word to people.
///
/// The words are kept in records and read by other programs: new ones go to the end, none is ever renamed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "UpgradeFrame/UpgradeTypes.h"

enum class Reason : uint8_t {
  None,
  Stopped,
  Busy,
  BatteryLow,
  StickUnreadable,
  PackageNone,
  PackageName,
  PackageSameVersion,
  PackageCopy,
  PackageUnpack,
  ManifestUnreadable,
  ManifestNoStation,
  ManifestElement,
  PackageHardware,
  PackageMd5,
  PackageInnerUnpack,
  PagesManifest,
  PagesEntry,
  PagesMove,
  CloudNone,
  CloudAnswer,
  Space,
  CloudDownload,
  PortableElement,
  PortableMd5,
  PortableDirectory,
  PortableUnpack,
  PortableManifest,
  PortableName,
  PortableStore,
  PartsManifest,
  RecordWrite,
  MarkerWrite,
  PartNoUpgrader,
  PartInit,
  PartStart,
  PartTimeout,
  PartTarget,
  PartClear,
  PartUnpack,
  PartCopy,
  PartFormat,
  PartMount,
  PartSize,
  PartImage,
  PartDevice,
  PartWrite,
  PartAnswer,
  PartVersion,
  PartVerify,
  PartRecord,
  BatteryDrained,
};

namespace Reasons {

/// What a package that ends for a reason without having started the upgrade shows on the panel.
enum class Panel : uint8_t {
  Nothing,      ///< nothing further: no report belongs to it, or another one told already
  Failed,       ///< status -1
  SameVersion,  ///< status 3
  NoTask,       ///< status 4
  BatteryLow,   ///< message 101
};

/// One reason. A "*" in its word stands for the page word of the part that failed.
struct Row {
  Reason reason;
  const char* word;
  Panel panel;
  bool reboots;  ///< the unit does not go on with half a page
};

// clang-format off
inline constexpr std::array<Row, 52> kAll = {{
    {Reason::None,               "",                         Panel::Nothing,     false},
    {Reason::Stopped,            "stopped",                  Panel::Nothing,     false},
    {Reason::Busy,               "busy",                     Panel::Nothing,     false},
    {Reason::BatteryLow,         "battery.low",              Panel::BatteryLow,  false},
    {Reason::StickUnreadable,    "stick.unreadable",         Panel::Failed,      false},
    {Reason::PackageNone,        "package.none",             Panel::NoTask,      false},
    {Reason::PackageName,        "package.name",             Panel::Failed,      false},
    {Reason::PackageSameVersion, "package.same-version",     Panel::SameVersion, false},
    {Reason::PackageCopy,        "package.copy",             Panel::Failed,      true},
    {Reason::PackageUnpack,      "package.unpack",           Panel::Failed,      true},
    {Reason::ManifestUnreadable, "manifest.unreadable",      Panel::Failed,      false},
    {Reason::ManifestNoStation,  "manifest.no-station",      Panel::Failed,      false},
    {Reason::ManifestElement,    "manifest.element",         Panel::Failed,      true},
    {Reason::PackageHardware,    "package.hardware",         Panel::Failed,      true},
    {Reason::PackageMd5,         "package.md5",              Panel::Failed,      true},
    {Reason::PackageInnerUnpack, "package.inner-unpack",     Panel::Failed,      true},
    {Reason::PagesManifest,      "pages.manifest",           Panel::Failed,      true},
    {Reason::PagesEntry,         "pages.entry",              Panel::Failed,      true},
    {Reason::PagesMove,          "pages.move",               Panel::Failed,      true},
    {Reason::CloudNone,          "cloud.none",               Panel::NoTask,      false},
    {Reason::CloudAnswer,        "cloud.answer",             Panel::Failed,      false},
    {Reason::Space,              "space",                    Panel::Failed,      false},
    {Reason::CloudDownload,      "cloud.download",           Panel::Failed,      false},
    {Reason::PortableElement,    "portable.element",         Panel::Nothing,     false},
    {Reason::PortableMd5,        "portable.md5",             Panel::Nothing,     false},
    {Reason::PortableDirectory,  "portable.directory",       Panel::Nothing,     false},
    {Reason::PortableUnpack,     "portable.unpack",          Panel::Nothing,     false},
    {Reason::PortableManifest,   "portable.manifest",        Panel::Nothing,     false},
    {Reason::PortableName,       "portable.name",            Panel::Nothing,     false},
    {Reason::PortableStore,      "portable.store",           Panel::Nothing,     false},
    {Reason::PartsManifest,      "parts.manifest",           Panel::Failed,      true},
    {Reason::RecordWrite,        "record.write",             Panel::Failed,      true},
    {Reason::MarkerWrite,        "marker.write",             Panel::Failed,      true},
    {Reason::PartNoUpgrader,     "part.*.no-upgrader",       Panel::Failed,      true},
    {Reason::PartInit,           "part.*.init",              Panel::Failed,      true},
    {Reason::PartStart,          "part.*.start",             Panel::Failed,      true},
    {Reason::PartTimeout,        "part.*.timeout",           Panel::Failed,      true},
    {Reason::PartTarget,         "part.*.target",            Panel::Failed,      true},
    {Reason::PartClear,          "part.*.clear",             Panel::Failed,      true},
    {Reason::PartUnpack,         "part.*.unpack",            Panel::Failed,      true},
    {Reason::PartCopy,           "part.*.copy",              Panel::Failed,      true},
    {Reason::PartFormat,         "part.*.format",            Panel::Failed,      true},
    {Reason::PartMount,          "part.*.mount",             Panel::Failed,      true},
    {Reason::PartSize,           "part.*.size",              Panel::Failed,      true},
    {Reason::PartImage,          "part.*.image",             Panel::Failed,      true},
    {Reason::PartDevice,         "part.*.device",            Panel::Failed,      true},
    {Reason::PartWrite,          "part.*.write",             Panel::Failed,      true},
    {Reason::PartAnswer,         "part.*.answer",            Panel::Failed,      true},
    {Reason::PartVersion,        "part.*.version",           Panel::Failed,      true},
    {Reason::PartVerify,         "part.*.verify",            Panel::Failed,      true},
    {Reason::PartRecord,         "part.*.record",            Panel::Failed,      true},
    {Reason::BatteryDrained,     "battery.drained",          Panel::Failed,      false},
}};
// clang-format on

constexpr const Row& Of(Reason reason) {
  return kAll[static_cast<size_t>(reason)];
}

namespace Detail {
constexpr bool RowsFollowReasons() {
  for (size_t row = 0; row < kAll.size(); ++row) {
    if (kAll[row].reason != static_cast<Reason>(row)) return false;
  }
  return true;
}
}  // namespace Detail
static_assert(Detail::RowsFollowReasons(), "the rows are in the order of the reasons");

}  // namespace Reasons

/// Why something failed; empty, and false, when nothing did. As a result it reads
///
///   if (Failure failure = Unpack(archive)) return failure;
struct Failure {
  Reason reason = Reason::None;
  std::string context;            ///< what was expected and found, for people; one line, may be empty
  UPGRADETYPE part = UP_NO_TYPE;  ///< which part failed, for a reason of parts

  explicit operator bool() const { return reason != Reason::None; }
  /// "package.md5", "part.rootfs.mount".
  [[nodiscard]] std::string Word() const;
  /// The word and, behind a colon, the context.
  [[nodiscard]] std::string Text() const;
};

/// A failure whose context is printed as printf does.
Failure Fail(Reason reason, const char* format, ...) __attribute__((format(printf, 2, 3)));
