/// What is said to and by a module's flash loader: the payload of each request, and what each confirmation
/// holds. All numbers go low byte first. The exchange sends the requests, its parser judges the answers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"
#include "UpgradeFrame/RtxSubmodules/RtxProtocol.h"
#include "UpgradeFrame/RtxSubmodules/RtxRun.h"

namespace Rtx {

Bytes ReadVersionRequest();
Bytes WriteConfigRequest();
/// Erases the sector that holds `address`.
Bytes EraseRequest(uint32_t address);
/// Programs `size` bytes at `address`, at most kProgramChunk; an odd one is padded with 0xFF, because the
/// flash is written in words of 16 bits.
Bytes ProgramRequest(uint32_t address, const uint8_t* data, size_t size);
/// Asks for the CRC-32 of `length` bytes of the flash.
Bytes CalcCrc32Request(uint32_t start, uint32_t length);

/// What the flash loader can confirm. Layouts after the primitive:
///   READ_SW_VERSION  major 1, minor 1, build 1
///   WRITE_CONFIG     status 1
///   PROG_FLASH       address 4, words 2, status 1
///   CALC_CRC32       start 4, length 4, CRC 4
///   FLASH_ERASE      address 4, status 1
/// A status of 0 tells that the flash loader could not do it.
struct Confirmation {
  FlPrimitiveIdType cmd;
  FlPacketSizeType size;
  bool hasStatus;  ///< as the last byte
  FlagType flag;   ///< tells the state thread of it
  const char* name;
  const char* onTimeout;  ///< what the log says when it does not come
};

/// The entry for the primitive `cmd`; null for one that is no confirmation this side waits for.
const Confirmation* FindConfirmation(uint8_t cmd);

/// The CRC that an EM_CALC_CRC32_CFM of the right size carries.
uint32_t Crc32Of(const FlPayload_t& confirmation);

}  // namespace Rtx
