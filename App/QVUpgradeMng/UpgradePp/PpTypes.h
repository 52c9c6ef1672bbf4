/// The vocabulary of portable parts (belt packs): their families, what one reports of itself, what the base
/// station holds for it, and the command codes. Plain values; the numbers are fixed by the wire and by the
/// controller's messages.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace UpgPp {

/// The value is the part's model number.
enum PpType {
  EM_PP_7302_03 = 7303,   ///< legacy: identified and paired, never upgraded
  EM_PP_7308 = 7308,      ///< upgraded over its serial line, with a radio module of its own
  EM_PP_7204 = 7204,      ///< upgraded by a file on its storage
  EM_PP_7204_EVT = 7205,  ///< the same on hardware "H000…", with firmware of its own
  EM_PP_MAX = 7206,
};

/// Both hardwares of the 7204.
constexpr bool Is7204Pp(PpType type) {
  return type == EM_PP_7204 || type == EM_PP_7204_EVT;
}

/// One firmware held on the base station.
struct PpFw_t {
  std::string m_strVerison;  ///< software version, as in NormalVersion
  std::string m_strHwVerison;
  std::string m_strRtxVerison;
  std::string m_strFwPath;           ///< directory, ends in "/"
  std::string m_strFileName;         ///< of the image in that directory; empty: no package of this type
  std::vector<uint8_t> m_vecVerNum;  ///< the four numbers of the software version; empty without a package
};
using PpFwMap = std::map<PpType, PpFw_t>;

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
