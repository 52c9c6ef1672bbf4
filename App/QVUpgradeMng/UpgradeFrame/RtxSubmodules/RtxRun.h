/// What the threads of a radio module's upgrade share: the states of a run, and the flags with which the
/// parser tells the state thread what the module said.
#pragma once

#include <cstdint>

namespace Rtx {

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

}  // namespace Rtx
