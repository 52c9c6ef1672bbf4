/// The line to the MCU: sends one request at a time and waits for its answer. McuMessages.h tells what is
/// said. The MCU's upgrader owns it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BSW/MultiTask/CFlags.h"
#include "BSW/Serial/SerialProtocolMng.h"
#include "BSW/Serial/UartMngInfo.h"
#include "UpgradeFrame/McuSubmodules/McuMessages.h"
#include "UpgradePackage/Parts.h"
#include "UpgradePackage/Reasons.h"

/// Any thread may call any member, but Open and Close none of the line's own. The line's parser thread takes
/// the answers and sets a flag for each.
class McuLine {
 public:
  enum FlagType : uint32_t {
    EM_FLAG_INIT_DONE = 0x1,
    EM_FLAG_CLEAN_DONE = 0x2,
    EM_FLAG_START_UPG = 0x4,
    EM_FLAG_GET_VER = 0x8,
    EM_FLAG_START_UPG_ACK = 0x10,
    EM_FLAG_SEND_FW_INFO_ACK = 0x20,
    EM_FLAG_SEND_PACK_ACK = 0x40,
    EM_FLAG_UPG_DONE_ACK = 0x80,
    EM_FLAG_ESIXT_OTHER_MODULE = 0x100,
    EM_FLAG_RESTART_AND_UPG_MCU = 0x200,
  };
  using CmdCode = McuMessages::CmdCode;
  using Bytes = std::vector<uint8_t>;

  static constexpr const char* m_strUartName = Parts::Find(UP_MCU)->target[Parts::kSideA];

  /// The flags outlive the line; their End ends every wait.
  explicit McuLine(CFlags& flags) : m_flags(flags) {}

  /// False, logged, when there is no line.
  bool Open();
  /// Idempotent. The caller holds no lock.
  void Close();
  [[nodiscard]] bool IsOpen() { return _Line() != nullptr; }

  /// Sends a request and waits up to 10 s for the flag of its answer; false when none came, the MCU refused,
  /// or the flags have ended.
  bool Request(CmdCode code, FlagType flag, const Bytes& data = {});
  /// The same with a reason: stopped after the flags' end, else no answer, logged as `onTimeout`.
  Failure Ask(CmdCode code, FlagType flag, const std::string& onTimeout, const Bytes& data = {});

  /// What the MCU answered last.
  McuMessages::Identity LastIdentity();

 private:
  using ProtocolData_t = SerialProtocolMng::ProtocolData_t;

  struct Response {
    CmdCode code;
    void (McuLine::*handler)(const Bytes& data);
  };

  std::shared_ptr<SerialProtocolMng> _Line();
  bool _SendCmd(CmdCode code, const Bytes& data);

  bool _ProtocolDataRecvCb(const ProtocolData_t& data);
  void _HandleRspVer(const Bytes& data);
  void _HandleRspStartUpg(const Bytes& data) {
    _HandleRspStatus(data, EM_FLAG_START_UPG_ACK, "MCU ack start upg", "MCU ack start upg failed!");
  }
  void _HandleRspFwInfo(const Bytes& data) {
    _HandleRspStatus(data, EM_FLAG_SEND_FW_INFO_ACK, "MCU ack send fw info", "MCU ack send fw info failed!");
  }
  void _HandleRspPackage(const Bytes& data) {
    _HandleRspStatus(data, EM_FLAG_SEND_PACK_ACK, "MCU ack send package", "MCU ack send package failed!");
  }
  void _HandleRspUpgDone(const Bytes& data) {
    _HandleRspStatus(data, EM_FLAG_UPG_DONE_ACK, "MCU ack upg done", "MCU ack upg done failed!");
  }
  void _HandleRspStatus(const Bytes& data, FlagType flag, const char* success, const char* failure);

  static const std::array<Response, 5> m_Responses;
  static const SerialProtocolMng::PayloadCfg_t m_stPayloadCfg;
  static const UART_MNG_INFO_S m_stUartCfg;
  static constexpr int m_iWaitTime = 10000;  ///< milliseconds

  const std::string m_strDevId = "MCU";
  CFlags& m_flags;
  McuMessages::Identity m_identity GUARDED_BY(m_flags.Mutex());
  std::shared_ptr<SerialProtocolMng> m_ProtocolMng GUARDED_BY(m_flags.Mutex());  ///< null while closed
};
