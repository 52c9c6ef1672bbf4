/// The payloads between the base station and portable parts, of both protocols: how the station's are built
/// and the parts' are read. Everything received is hostile until read whole. Stateless; UpgradePp is the only
/// user.
///
/// A text of a part ends at its first NUL, which parts pad with. One that is no text, since the flash behind
/// it is erased, say, counts as empty and is logged: no UTF-8, or with control characters, which would forge
/// lines of the log. Only lengths that do not fit spoil a reply.
///
/// All numbers are little-endian. Newer frames carry a payload as McuFrame tells; legacy ones as SerialPrase.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "UpgradePp/PpTypes.h"

namespace PpMessages {

/// Sizes, in bytes.
enum CmdSizeType {
  EM_SZIE_MIN_VER_INFO = 6,  ///< shortest version reply: four numbers and two empty texts
};
enum UpgPpCfgType {
  EM_CFG_PP_7204 = 0,  ///< family byte of the firmware information
  EM_CFG_PP_7308 = 1,
  EM_CFG_7308_PACK_SIZE = 1024,  ///< data bytes of one packet
};

/// Reads a version reply of the newer protocol: numbers 4 | N 1 | hardware version N | M 1 | RTX version M.
/// `family` is project number * 256 + device type of the frame: 0x7204 is EM_PP_7204 (EM_PP_7204_EVT on
/// hardware "H000…"), all others are EM_PP_7308. Nothing when a text runs beyond the end.
std::optional<PpInfo_t> ReadVersion(unsigned family, const std::vector<uint8_t>& data);

/// The legacy version reply: radio active 1 | four texts, each behind its length byte: product module number,
/// software, hardware and RTX version.
struct LegacyVersion {
  bool radioActive = false;
  PpInfo_t info;
};
std::optional<LegacyVersion> ReadLegacyVersion(const std::vector<uint8_t>& data);

/// Firmware information: family 1 | file size 4 | version numbers 4 | L 1 | file name L. Empty when the name
/// is over 255 bytes, the size over 32 bits or the version not of four numbers.
std::vector<uint8_t> FirmwareInfo(UpgPpCfgType family, uint64_t fileSize, const std::vector<uint8_t>& version,
                                  const std::string& fileName);

/// One data packet: number 1 | up to 1024 bytes.
std::vector<uint8_t> DataPack(uint8_t number, const uint8_t* data, size_t length);

/// The whole frame that tells a part how its radio module's upgrade went; the part takes exactly these bytes:
/// AA DD 08 00 00 81 55 01 01 01 A2 | 0 on success, else 1 | XOR of the 12 before.
std::vector<uint8_t> RtxResultFrame(bool success);

}  // namespace PpMessages
