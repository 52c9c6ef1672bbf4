/// Upgrades the FPGA: loads the flash driver and copies the image to its device. The frame starts it behind
/// the USB audio chip, again with every report of that, or in its place.
#pragma once

#include <chrono>

#include "UpgradeFrame/OneShotUpgrader.h"

class CQVUpgradeFpga final : public OneShotUpgrader {
 public:
  /// How long the driver may take for a piece: more than the erasing of a flash block needs.
  static constexpr std::chrono::seconds kPieceTime{10};

  CQVUpgradeFpga();

  bool StartUpgrade() override;

  /// Copies the file `path` to `device` in pieces of 4096 bytes, the last one as long as what is left. Fails
  /// when either cannot be opened, read or written, the image is empty, the device takes nothing for
  /// `pieceTime`, or the calling thread is asked to stop. What the flash holds then is the driver's affair.
  static Failure _UpgardeFpga(const std::string& path, const char* device, const IPayload::Steps& steps,
                              std::chrono::milliseconds pieceTime = kPieceTime);

 private:
  static const Kind m_kindFpga;
  static const Table m_MapStateMachineFunc;
};
