/// The vocabulary of portable parts (belt packs): their families, what one reports of itself, what the base
/// station holds for it, the command codes, and the states and flags of an upgrade. Plain values; the numbers
/// are fixed by the wire, by the controller's messages and by the log.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "BSW/BasicFun/VersionNumbers.h"

/// The one form in which software versions of parts are kept and compared: "S", four numbers, the last with
/// at least two digits ("S1.0.2.05"). Package names may write it without the padding.
namespace PpVersion {

inline std::string Text(const VersionNumbers& numbers) {
  return "S" + VersionNumbersText(numbers);
}

/// Reads "[S]a.b.c.d", numbers up to 255. Nothing when `text` as a whole is no such version.
inline std::optional<VersionNumbers> Parse(std::string_view text) {
  if (!text.empty() && text.front() == 'S') text.remove_prefix(1);
  return ParseVersionNumbers(text);
}

/// A version in the one form; any other text as it is.
inline std::string Normal(const std::string& text) {
  const std::optional<VersionNumbers> numbers = Parse(text);
  return numbers ? Text(*numbers) : text;
}

}  // namespace PpVersion

namespace UpgPp {

/// The value is the part's model number.
enum PpType {
  EM_PP_7302_03 = 7303,   ///< legacy: identified and paired, never upgraded
  EM_PP_7308 = 7308,      ///< upgraded over its serial line, with a radio module of its own
  EM_PP_7204 = 7204,      ///< upgraded by a file on its storage
  EM_PP_7204_EVT = 7205,  ///< the same on k7204EvtHardware, with firmware of its own
  EM_PP_MAX = 7206,
};
/// What the hardware version of such a 7204 begins with.
inline constexpr const char* k7204EvtHardware = "H000";

/// Both hardwares of the 7204.
constexpr bool Is7204Pp(PpType type) {
  return type == EM_PP_7204 || type == EM_PP_7204_EVT;
}

/// One firmware held on the base station.
struct PpFw_t {
  std::string m_strVerison;  ///< software version, as PpVersion writes it
  std::string m_strHwVerison;
  std::string m_strRtxVerison;
  std::string m_strFwPath;           ///< directory, ends in "/"
  std::string m_strFileName;         ///< of the image in that directory; empty: no package of this type
  std::vector<uint8_t> m_vecVerNum;  ///< the four numbers of the software version; empty without a package

  [[nodiscard]] std::string ImagePath() const { return m_strFwPath + m_strFileName; }
};
using PpFwMap = std::map<PpType, PpFw_t>;

/// True when there is a package for this type.
inline bool HasPackage(const PpFwMap& held, PpType type) {
  const auto found = held.find(type);
  return found != held.end() && !found->second.m_strFileName.empty();
}

enum ProtocolType {
  EM_PROT_73_OLD = 0,  ///< legacy frames
  EM_PROT_72_NEW = 1,  ///< MCU frames
};

/// A new state goes before EM_STATE_MAX and gets a name and a handler in UpgradePp.
enum UpgradeStateType {
  EM_STATE_IDLE = 0,
  EM_STATE_INIT = 1,  ///< never entered
  EM_STATE_IDENTIFY = 2,
  EM_STATE_CHECK_VER = 3,
  EM_STATE_UPG_PP = 4,
  EM_STATE_REQ_PAIR = 5,
  EM_STATE_INTERRUPT = 6,
  EM_STATE_UPG_SUCCESS = 7,
  EM_STATE_FAILED = 8,
  EM_STATE_MAX = 9,
};

/// The flags with which the threads of an upgrade tell each other; the log shows their sums.
enum FlagType : uint32_t {
  EM_FLAG_RSP = 0x1,
  EM_FLAG_CLEAN_UP = 0x2,  ///< the upgrade of portable parts ends for good
  EM_FLAG_OLD_UART_OPEN = 0x4,
  EM_FLAG_NEW_UART_OPEN = 0x8,
  EM_FLAG_GET_VER = 0x10,
  EM_FLAG_SEND_FW_INFO_ACK = 0x20,
  EM_FLAG_START_UPG_ACK = 0x40,
  EM_FLAG_SEND_PACK_ACK = 0x80,
  EM_FLAG_SEND_PACK_DONE_ACK = 0x100,
  EM_FLAG_7204_RE_INSERT = 0x200,  ///< the part under way came back after it had gone
  EM_FLAG_7308_VER_INFO_LOADED = 0x400,
  EM_FLAG_UPG_PP_RTX_SUCCESS = 0x800,
  EM_FLAG_UPG_RTX_RESULT = 0x1000,
  EM_FLAG_START_UPG_RTX = 0x2000,  ///< an upgrade of the radio module is under way
  EM_FLAG_REQ_UPG_RTX_ACK = 0x4000,
  EM_FLAG_NOTIFY_PP_RTX_RESULT_ACK = 0x8000,
  EM_FLAG_DO_NOT_UPG = 0x10000,  ///< the user declined on the part
  EM_FLAG_PLUG_IN = 0x20000,     ///< the part under way has been in since its turn began
  EM_FLAG_LOAD_STORAGE = 0x40000,
  EM_FLAG_LOAD_7204_EVT_PACKAGE = 0x80000,
  EM_FLAG_LOAD_7204_DVT_PACKAGE = 0x100000,
};
/// Those that outlive an attempt, and those of the ports, which an attempt may find open.
inline constexpr uint32_t kLongTermFlags = EM_FLAG_CLEAN_UP | EM_FLAG_7308_VER_INFO_LOADED | EM_FLAG_PLUG_IN |
                                           EM_FLAG_LOAD_STORAGE | EM_FLAG_LOAD_7204_EVT_PACKAGE |
                                           EM_FLAG_LOAD_7204_DVT_PACKAGE;
inline constexpr uint32_t kPortFlags = EM_FLAG_OLD_UART_OPEN | EM_FLAG_NEW_UART_OPEN;

/// The flag that a package is held for a type; no flag for one that is never upgraded.
constexpr uint32_t PackageFlag(PpType type) {
  if (type == EM_PP_7308) return EM_FLAG_7308_VER_INFO_LOADED;
  if (type == EM_PP_7204) return EM_FLAG_LOAD_7204_DVT_PACKAGE;
  return type == EM_PP_7204_EVT ? EM_FLAG_LOAD_7204_EVT_PACKAGE : 0U;
}

}  // namespace UpgPp

/// What a portable part reported of itself.
struct PpInfo_t {
  UpgPp::PpType m_emPpType = UpgPp::EM_PP_MAX;
  std::string strProductModuleNum;  ///< from the legacy reply alone
  std::string strVerison;
  std::string strHwVerison;
  std::string strRtxVerison;
  std::string strStorgePath;  ///< always empty: parts do not tell it, and PpDevices knows the node of a 7204

  void CleanInfo() { *this = PpInfo_t(); }
};

/// Commands of the legacy frames.
enum OldCmdTpye {
  EM_OLD_CMD_GET_PP_VERSION_INFO = 0xB1,
  EM_OLD_CMD_MAX = 178,
};

/// Commands of the newer frames.
enum NewCmdType {
  EM_NEW_CMD_REQ_PP_VERSION = 0x101,
  EM_NEW_CMD_REQ_START_UPG = 0x102,
  EM_NEW_CMD_REQ_SEND_FW_INFO = 0x103,
  EM_NEW_CMD_REQ_SEND_DATA_PACK = 0x104,
  EM_NEW_CMD_REQ_SEND_FW_DONE = 0x105,
  EM_NEW_CMD_PP_REP_READY = 0x106,  ///< report of the part
  EM_NEW_CMD_REQ_UPG_RTX = 0x1A0,
  EM_NEW_CMD_NOTIFY_PP_RTX_RESULT = 0x1A2,
  EM_NEW_CMD_MAX = 0x1A3,
};
