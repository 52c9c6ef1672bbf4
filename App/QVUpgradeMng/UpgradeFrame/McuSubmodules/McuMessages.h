/// What the base station and its MCU say to each other during an upgrade: the data of each request and of
/// each response. The frames around it are McuFrame's, the exchange is McuSubmodules'.
///
/// The story: the MCU runs its application. Asked for its version, it answers with eight bytes:
///
///   status 1 (0 = success) | run mode 1 (0 application, 1 boot loader) | four version numbers | reserved 2
///
/// Told to start the upgrade, it answers and restarts into its boot loader. There it gets a description,
///
///   upgrade type 1 (0x02) | image size 4, little-endian | four version numbers | image file name n
///
/// and the image in packages, one answer for each,
///
///   package number 1 (from 1; wraps) | up to 512 bytes of the image
///
/// until it is told that the upgrade is done, and starts the new application. Every answer but the version's
/// is one status byte. All of this is fixed by the wire.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "BSW/BasicFun/VersionNumbers.h"

/// A version of the MCU's firmware, compared number by number; a plain value. Each number fits the byte that
/// it has on the wire.
struct McuVersion {
  VersionNumbers numbers{};

  /// Reads "1.0.6.30" or "V1.0.6.30": exactly four decimal numbers up to 255. Empty for anything else.
  static std::optional<McuVersion> Parse(const std::string& text);

  /// "%u.%u.%u.%02u".
  [[nodiscard]] std::string Text() const { return VersionNumbersText(numbers); }

  bool operator==(const McuVersion& other) const { return numbers == other.numbers; }
  bool operator!=(const McuVersion& other) const { return numbers != other.numbers; }
  bool operator<(const McuVersion& other) const { return numbers < other.numbers; }
};

namespace McuMessages {

enum CmdCode : uint16_t {
  EM_CMD_ARM_REQ_VER = 416,
  EM_CMD_ARM_REQ_START_UPG = 417,
  EM_CMD_ARM_SEND_FW_INFO = 418,
  EM_CMD_ARM_SEND_PACKAGE = 419,
  EM_CMD_ARM_SEND_UPG_DONE = 420,
  EM_PAIR_CMD_MAX = 421,
};

/// Data lengths of responses, in bytes.
enum CmdSizeType {
  EM_SZIE_VER_INFO = 8,
  EM_SZIE_UNIVERSAL = 1,
};

/// The name is shared with the radio modules' upgrader.
enum UpgradeRtxCfgType {
  EM_CFG_UPG_TYPE = 2,
  EM_CFG_SLEEP_TIME = 50,
  EM_CFG_MCU_PACK_SIZE = 512,
};

/// The status byte of an answer that refuses nothing.
constexpr uint8_t kStatusSuccess = 0;

enum class RunMode { Silent, Application, BootLoader };

/// What answers on the MCU's line; Silent and all zeros when nothing did.
struct Identity {
  RunMode mode = RunMode::Silent;
  McuVersion version;
};

/// The data of EM_CMD_ARM_SEND_FW_INFO.
std::vector<uint8_t> FirmwareDescription(uint32_t imageSize, const McuVersion& version,
                                         const std::string& fileName);

/// The number of packages that an image of `imageSize` bytes takes.
size_t PackageCount(size_t imageSize);
/// The data of EM_CMD_ARM_SEND_PACKAGE for package `index`, counted from 0 and below PackageCount.
std::vector<uint8_t> Package(const std::string& image, size_t index);

/// Reads a version response; empty when it has another length or reports a failure.
std::optional<Identity> ReadVersion(const std::vector<uint8_t>& data);

}  // namespace McuMessages
