/// The files that a radio module's upgrade takes: two loaders and the firmware, beside each other in one
/// directory. Used by the exchange; its host names the directory.
#pragma once

#include <string>

#include "UpgradeFrame/RtxSubmodules/RtxProtocol.h"
#include "UpgradePackage/Reasons.h"

struct RtxFiles {
  std::string m_strPreLoaderFile;
  std::string m_strFlashLoaderFile;
  std::string m_strFirmwareFile;

  /// Names the two loaders and the one "*.spihex" in `directory`. Fails when there is no firmware; the
  /// loaders may be missing.
  Failure FindIn(const std::string& directory);

  /// Reads a loader; fails when it is missing, empty, or larger than a length header can say.
  static Failure LoadImage(const std::string& path, Rtx::Bytes& image);
};
