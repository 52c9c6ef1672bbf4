/// What each message of the system controller leads to. Everything in a message comes from another process:
/// a wrong type is logged and never thrown. SysCtrlIpc's receiver thread calls it.
#pragma once

#include <json/json.h>

#include <string>

#include "UpgradeIpcMsg/SysCtrlIpc/ISysCtrlReports.h"

/// The numbers that the daemon and the system controller have agreed on. SysCtrlIpc derives from it, so that
/// callers find them there.
struct SysCtrlProtocol {
  /// "Cmd" of a message.
  enum CmdCodeType {
    EM_CODE_REQ_PAIR = 0,  ///< out: pair a portable part; in, as a reply: the outcome of a request
    EM_CODE_SYS_REP_FPGA_VER = 100,
    EM_CODE_SYS_REP_RTX_VER = 101,
    EM_CODE_SYS_REP_BATTERY = 102,
    EM_CODE_SYS_REP_CLOCK_SYNC_STATUS = 103,
    EM_CODE_SYS_REQ_VER = 104,
    EM_CODE_SYS_REP_UAC_VER = 105,
    EM_CODE_VERSION = 200,  ///< out: versions
    EM_CODE_MAX = 999,
  };

  /// "ErrorCode" of a reply.
  enum ErrCodeType {
    EM_ERR_CODE_SUCCESS = 0,
    EM_ERR_CODE_FAILED = 1,
  };
};

namespace SysCtrlMsgHandler {

/// Handles one report or request. False, logged, when it lacks "Cmd" or "Data": whatever follows it from the
/// same sender is in doubt. An unknown command or unusable "Data" is logged and true, as is a report while
/// `reports` is null.
bool Handle(ISysCtrlReports* reports, const Json::Value& message);

/// Reads the controller's reply to a request and logs the error that it may tell. No caller yet: the daemon
/// does not wait for the replies to its requests.
void _ParseReply(const std::string& text);

}  // namespace SysCtrlMsgHandler
