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

/// One row a reason: its name, its word, what the panel shows when a package ends for it without having
/// started the upgrade, and whether the unit then reboots, because it must not go on with half a page. A "*"
/// stands for the page word of the part that failed.
// clang-format off
#define QV_REASONS(X) \
  X(None,               "",                     Nothing,     false) \
  X(Stopped,            "stopped",              Nothing,     false) \
  X(Busy,               "busy",                 Nothing,     false) \
  X(BatteryLow,         "battery.low",          BatteryLow,  false) \
  X(StickUnreadable,    "stick.unreadable",     Failed,      false) \
  X(PackageNone,        "package.none",         NoTask,      false) \
  X(PackageName,        "package.name",         Failed,      false) \
  X(PackageSameVersion, "package.same-version", SameVersion, false) \
  X(PackageCopy,        "package.copy",         Failed,      true)  \
  X(PackageUnpack,      "package.unpack",       Failed,      true)  \
  X(ManifestUnreadable, "manifest.unreadable",  Failed,      false) \
  X(ManifestNoStation,  "manifest.no-station",  Failed,      false) \
  X(ManifestElement,    "manifest.element",     Failed,      true)  \
  X(PackageHardware,    "package.hardware",     Failed,      true)  \
  X(PackageMd5,         "package.md5",          Failed,      true)  \
  X(PackageInnerUnpack, "package.inner-unpack", Failed,      true)  \
  X(PagesManifest,      "pages.manifest",       Failed,      true)  \
  X(PagesEntry,         "pages.entry",          Failed,      true)  \
  X(PagesMove,          "pages.move",           Failed,      true)  \
  X(CloudNone,          "cloud.none",           NoTask,      false) \
  X(CloudAnswer,        "cloud.answer",         Failed,      false) \
  X(Space,              "space",                Failed,      false) \
  X(CloudDownload,      "cloud.download",       Failed,      false) \
  X(PortableElement,    "portable.element",     Nothing,     false) \
  X(PortableMd5,        "portable.md5",         Nothing,     false) \
  X(PortableDirectory,  "portable.directory",   Nothing,     false) \
  X(PortableUnpack,     "portable.unpack",      Nothing,     false) \
  X(PortableManifest,   "portable.manifest",    Nothing,     false) \
  X(PortableName,       "portable.name",        Nothing,     false) \
  X(PortableStore,      "portable.store",       Nothing,     false) \
  X(PartsManifest,      "parts.manifest",       Failed,      true)  \
  X(RecordWrite,        "record.write",         Failed,      true)  \
  X(MarkerWrite,        "marker.write",         Failed,      true)  \
  X(PartNoUpgrader,     "part.*.no-upgrader",   Failed,      true)  \
  X(PartInit,           "part.*.init",          Failed,      true)  \
  X(PartStart,          "part.*.start",         Failed,      true)  \
  X(PartTimeout,        "part.*.timeout",       Failed,      true)  \
  X(PartTarget,         "part.*.target",        Failed,      true)  \
  X(PartClear,          "part.*.clear",         Failed,      true)  \
  X(PartUnpack,         "part.*.unpack",        Failed,      true)  \
  X(PartCopy,           "part.*.copy",          Failed,      true)  \
  X(PartFormat,         "part.*.format",        Failed,      true)  \
  X(PartMount,          "part.*.mount",         Failed,      true)  \
  X(PartSize,           "part.*.size",          Failed,      true)  \
  X(PartImage,          "part.*.image",         Failed,      true)  \
  X(PartDevice,         "part.*.device",        Failed,      true)  \
  X(PartWrite,          "part.*.write",         Failed,      true)  \
  X(PartAnswer,         "part.*.answer",        Failed,      true)  \
  X(PartVersion,        "part.*.version",       Failed,      true)  \
  X(PartVerify,         "part.*.verify",        Failed,      true)  \
  X(PartRecord,         "part.*.record",        Failed,      true)  \
  X(BatteryDrained,     "battery.drained",      Failed,      false)
// clang-format on

#define QV_REASON_NAME(name, word, panel, reboots) name,
enum class Reason : uint8_t { QV_REASONS(QV_REASON_NAME) };
#undef QV_REASON_NAME

namespace Reasons {

enum class Panel : uint8_t {
  Nothing,      ///< nothing further: no report belongs to it, or another one told already
  Failed,       ///< status -1
  SameVersion,  ///< status 3
  NoTask,       ///< status 4
  BatteryLow,   ///< message 101
};

struct Row {
  Reason reason;
  const char* word;
  Panel panel;
  bool reboots;
};

#define QV_REASON_ROW(name, word, panel, reboots) Row{Reason::name, word, Panel::panel, reboots},
inline constexpr std::array kAll = {QV_REASONS(QV_REASON_ROW)};
#undef QV_REASON_ROW

constexpr const Row& Of(Reason reason) {
  return kAll[static_cast<size_t>(reason)];
}

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
