/// The serial line to a radio module: what is sent, and the wait for what the module says to it. The exchange
/// owns it; RtxParser takes what comes in.
#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "BSW/MultiTask/CFlags.h"
#include "BSW/Serial/SerialPort.h"
#include "UpgradeFrame/RtxSubmodules/RtxProtocol.h"
#include "UpgradePackage/Reasons.h"

/// The state thread calls, Close any thread, the sending the parser too. Everything fails as stopped once the
/// flags tell that the run is to end.
class RtxLine {
 public:
  /// How the two ends are called in the access log.
  static constexpr const char* kStationLabel = "RRU";
  static constexpr const char* kModuleLabel = "RTX";

  /// `waitTime`: ms. The flags outlive the line.
  RtxLine(const char* uartName, int waitTime, CFlags& flags);

  /// Replaces who gets the bytes, on the port's receive thread.
  void SetReceiver(const SerialPort::SerialRecvCallback& receiver) {
    m_pSerial.RegisterUartEventCallback(receiver);
  }
  /// The device of the next Open; false when its name is too long.
  bool SetDevice(const char* device) { return m_stUartInfo.SetDevName(device); }
  /// Opens the line at the boot ROM's speed.
  Failure Open();
  /// Changes to the pre-loader's speed.
  Failure SpeedUp();
  /// Closes the line; ends a transfer under way. Idempotent.
  void Close();

  Failure _SendRaw(const Rtx::Bytes& bytes);
  /// Sends `payload` as a packet.
  Failure _SendPacket(const Rtx::Bytes& payload);
  /// Waits for the flag; fails, logged as `onTimeout`, when it does not come within `waits` times the
  /// line's wait.
  Failure WaitFor(Rtx::FlagType flag, const std::string& onTimeout, int waits = 1);

  /// The number of the module under upgrade.
  [[nodiscard]] int Module() const { return m_flags.Has(Rtx::EM_FLAG_UPGING_RTX2) ? 2 : 1; }

 private:
  const std::chrono::milliseconds m_waitTime;
  CFlags& m_flags;
  UART_MNG_INFO_S m_stUartInfo;
  SerialPort m_pSerial;
};
