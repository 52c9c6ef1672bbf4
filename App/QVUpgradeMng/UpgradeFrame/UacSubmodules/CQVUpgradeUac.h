/// Upgrades the USB audio chip: hands the image to the chip's boot loader by XMODEM. The frame starts it
/// first of all but the radio modules; the FPGA follows its first report.
#pragma once

#include <string>

#include "UpgradeFrame/SocUpgraderBase.h"
#include "UpgradeFrame/UacSubmodules/UacLine.h"

/// A failure goes to the panel as an exception message with its reason, before it is reported.
class CQVUpgradeUac : public SocUpgraderBase {
 public:
  CQVUpgradeUac();
  ~CQVUpgradeUac() override;

 protected:
  void OnStopRequested() override;

 private:
  bool _CheckUpgrade(const QVUpgradingInfo& info) override;
  void _OnEnd(bool succeeded) override;
  /// Sends the image; false with the reason in m_strFault.
  bool _Transfer(const std::string& image);

  static const Kind m_kindUac;
  static const Table m_MapStateMachineFunc;

  UacLine m_line;
  std::string m_strFault;  ///< why the upgrade failed; the upgrader's thread alone
};
