/// The words of a radio module's boot loader, pre-loader and flash loader, fixed by the module, and what the
/// threads of its upgrade share: the states of a run, and the flags with which the parser tells the state
/// thread what the module said.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "BSW/Log/CLog.h"

namespace Rtx {

using Bytes = std::vector<uint8_t>;

enum UpgradeRtxCfgType {
  EM_CFG_SLEEP_TIME = 50,        ///< ms between two states
  EM_CFG_PRE_LOADER_ACK = 6,     ///< the boot ROM takes the announced image
  EM_CFG_STX_CHAR = 2,           ///< the boot ROM is there
  EM_CFG_SOH_CHAR = 1,           ///< announces the pre-loader image
  EM_CFG_FLASH_SETTING_VAL = 0,  ///< each of the eight settings of a write-config request
  EM_CFG_FLASH_CONFIG = 3,
  EM_CFG_FLASH_LOADER_HEDER = 70,  ///< 'F', begins every packet
  EM_CFG_MAX_FALSH_PAYLOAD_SIZE = 2055,
  EM_CFG_MIN_FALSH_PACKET_SIZE = 6,
  EM_CFG_FALSH_PACKET_OTHER_SIZE = 5,  ///< of a packet, beside its payload
  EM_CFG_MAX_UART_RECV_SIZE = 1024,
  EM_CFG_ERASE_SECTOR_CMD = 48,
  EM_CFG_SECTOR_SIZE = 4096,
};

/// Single bytes, to and from the pre-loader.
enum PlPrimitiveIdType : uint8_t {
  EM_PRELOAD_START = 1,
  EM_PRELOAD_READY = 2,
  EM_PRELOAD_NEW_BAUDRATE = 3,
  EM_PRELOAD_NEW_BAUDRATE_READY = 4,
  EM_PRELOADER_BAUD_9600 = 5,
  EM_PRELOADER_BAUD_19200 = 6,
  EM_PRELOADER_BAUD_57600 = 7,
  EM_PRELOADER_BAUD_115200 = 8,
  EM_PRELOADER_BAUD_230400 = 9,
  EM_PRELOADER_BAUD_460800 = 10,
  EM_PRELOADER_BAUD_921600 = 11,
  EM_PRELOADER_BAUD_1843200 = 12,
};

/// First payload byte of a flash-loader packet.
enum FlPrimitiveIdType : uint8_t {
  EM_READ_SW_VERSION_REQ = 13,
  EM_READ_SW_VERSION_CFM = 14,
  EM_WRITE_CONFIG_REQ = 15,
  EM_WRITE_CONFIG_CFM = 16,
  EM_PROG_FLASH_REQ = 17,
  EM_PROG_FLASH_CFM = 18,
  EM_CALC_CRC32_REQ = 19,
  EM_CALC_CRC32_CFM = 20,
  EM_FLASH_ERASE_REQ = 21,
  EM_FLASH_ERASE_CFM = 22,
  EM_SET_BAUDRATE_REQ = 23,
  EM_SET_BAUDRATE_CFM = 24,
};

/// Data bytes of each confirmation, its primitive not counted.
enum FlPacketSizeType {
  EM_SIZE_READ_VER_CFM = 3,
  EM_SIZE_WRITE_CFG_CFM = 1,
  EM_SIZE_PROG_FLASH_CFM = 7,
  EM_SIZE_CALC_CRC32_CFM = 12,
  EM_SIZE_FLASH_EARSE_CFM = 5,
  EM_SIZE_SET_BAUDRATE_CFM = 1,
};

/// Positions in a packet; those of the check value count back from its end.
enum FlPacketPosType {
  EM_POS_HEADER = 0,
  EM_POS_LEN_L = 1,
  EM_POS_LEN_H = 2,
  EM_POS_CRC_L = 2,
  EM_POS_CRC_H = 1,
};

enum UpgradeStateType {
  EM_STATE_IDLE = 0,
  EM_STATE_INIT = 1,
  EM_STATE_ENTER_BOOT = 2,
  EM_STATE_DL_PRE_LOADER = 3,
  EM_STATE_CHANGE_BAUD_RATE = 4,
  EM_STATE_DL_FLASH_LOADER = 5,
  EM_STATE_WRITE_CFG_OF_FLASH = 6,
  EM_STATE_DL_FIRMWARE = 7,
  EM_STATE_SUCCESS = 8,
  EM_STATE_FAILED = 9,
  EM_STATE_MAX = 10,
};

enum FlagType : uint32_t {
  EM_FLAG_RECV_STX = 0x1,
  EM_FLAG_RECV_PL_ACK = 0x2,
  EM_FLAG_RECV_PL_CRC = 0x4,
  EM_FLAG_PL_READY = 0x8,
  EM_FLAG_BAUDREADY = 0x10,
  EM_FLAG_RECV_FL_CRC = 0x20,
  EM_FLAG_RECV_SW_VER = 0x40,
  EM_FLAG_WRITE_CFG_CFM = 0x80,
  EM_FLAG_EARSE_SECTOR_CFM = 0x100,
  EM_FLAG_PROGRAM_SECTOR_CFM = 0x200,
  EM_FLAG_VERIFY_SECTOR_CFM = 0x400,
  EM_FLAG_INIT_DONE = 0x800,
  EM_FLAG_CREATE_UART = 0x1000,
  EM_FLAG_UPGING_RTX2 = 0x2000,
  EM_FLAG_UPG_RTX1_SUCCESS = 0x4000,
  EM_FLAG_UPG_RTX2_SUCCESS = 0x8000,
  EM_FLAG_RECV_CORRECT_CRC = 0x10000,
  EM_FLAG_UART_OPEN = 0x20000,  ///< of the line, not of one module
};

/// The flags that tell which modules are done; the others are of the module under upgrade.
inline constexpr uint32_t kModuleFlags =
    EM_FLAG_UPGING_RTX2 | EM_FLAG_UPG_RTX1_SUCCESS | EM_FLAG_UPG_RTX2_SUCCESS;

/// Bytes that one program request carries.
inline constexpr size_t kProgramChunk = 0x800;

/// The module log that takes what is traced for every record and chunk of a firmware.
inline constexpr MODULE_LOG kTraceLog = MODULE_LOG_2;

}  // namespace Rtx
