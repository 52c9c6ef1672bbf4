/// The two marker files that choose the application partition of the next boot. Used by the frame alone: it
/// asks at start which partition runs, and switches once, after a successful upgrade.
///
/// The presence of the files is the choice, whatever they hold:
///   only partb.ini              B
///   only parta.ini, both, none  A
#pragma once

#include <string>

#include "UpgradePackage/Reasons.h"

/// Frame's constructor and frame thread only.
class PartitionMarkers {
 public:
  /// Both markers lie in one directory, which must exist when one is to be written.
  explicit PartitionMarkers(std::string markerA = "/qv_config/parta.ini",
                            std::string markerB = "/qv_config/partb.ini");

  /// Root of the partition that the markers choose, "/app_A" or "/app_B". Writes A's marker when there is
  /// none.
  std::string RunningPartition() const;

  /// Makes the other partition than `currentPart` the next boot's and leaves its marker alone; for an unknown
  /// `currentPart` that is A. When a file system call fails the old choice is put back, as far as the disk
  /// lets us.
  Failure SwitchFrom(const std::string& currentPart) const;

 private:
  Failure _ChooseA(const std::string& currentPart) const;
  Failure _ChooseB() const;
  /// Makes `currentPart` the next boot's again when it is not.
  void _PutBack(const std::string& currentPart) const;
  bool _ChoosesB() const;
  static Failure _WirtePattenFile(const char* path, const char* text);
  static Failure _DeleteMarker(const std::string& path);

  const std::string m_markerA;
  const std::string m_markerB;
};
