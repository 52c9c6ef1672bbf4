/// Upgrades the USB audio chip: hands the image to the chip's boot loader by XMODEM. The frame starts it
/// first of all but the radio modules; the FPGA follows its first report.
#pragma once

#include "UpgradeFrame/OneShotUpgrader.h"

/// A failure goes to the panel as an exception message with its reason, before it is reported.
class CQVUpgradeUac final : public OneShotUpgrader {
 public:
  CQVUpgradeUac();

 private:
  static const Kind m_kindUac;
  static const Table m_MapStateMachineFunc;
};
