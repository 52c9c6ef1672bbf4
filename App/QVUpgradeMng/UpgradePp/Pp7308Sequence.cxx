/// The exchange with a 7308, in order:
///
///   base station                        part
///   0x102 start                    -->
///                                  <--  acknowledgement; the part erases its flash (3 s)
///   0x103 firmware information     -->
///                                  <--  acknowledgement, or the user declined
///   0x104 packet 1, 2, ...         -->
///                                  <--  acknowledgement of each
///   0x105 done                     -->
///                                  <--  acknowledgement; the part starts the new application (2 s)
///   0x101 versions                 -->
///                                  <--  versions: the new one, and that of the radio module
///   0x1A0 radio module             -->
///                                  <--  acknowledgement; the part passes bytes through
///   the radio module's exchange (RtxExchange)
///   0x1A2 result, as a built frame -->
///                                  <--  acknowledgement
///
/// No step is repeated: an answer that is missing ends the attempt, and the next plug-in begins anew. Service
/// reads the texts as they are, also where one names the wrong step.
#include "UpgradePp/Pp7308Sequence.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradePp/PpMessages.h"

using namespace UpgPp;
using Answer = PpLink::Answer;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// The part erases its flash, and later starts its new application.
constexpr uint32_t kEraseMs = 3000;
constexpr uint32_t kRestartMs = 2000;

constexpr seconds kRtxConsentTime(5);
constexpr seconds kRtxUpgradeTime(60);
/// From the stop of a radio module's upgrade to its report.
constexpr seconds kRtxStopTime(5);

constexpr const char* kRtxDirectory = "RTX";

/// Far beyond a part's flash, and within the four bytes that tell the size.
constexpr int64_t kMaxImageBytes = 64 * 1024 * 1024;

}  // namespace

Pp7308Sequence::Pp7308Sequence(CFlags& flags, PpLink& link) : m_flags(flags), m_link(link) {
  m_upgPpRtx.RegUpgRxResultCallBack(
      [this](bool success, const std::string& message) { _UpgRtxResultCb(success, message); });
}

UpgradeStateType Pp7308Sequence::_Upg7308(UpgPp::PpType type, const UpgPp::PpFw_t& firmware,
                                          const std::string& device) {
  const bool transferred = _StartUpg() && _RrepareFwInfo(type, firmware) == EM_RET_SUCESS &&
                           _RrepareFwDataPack(firmware) == EM_RET_SUCESS && _FinishTransfer() &&
                           _ReCheckVersion(firmware);
  if (!transferred) return EM_STATE_FAILED;
  if (m_link.Info().strRtxVerison == firmware.m_strRtxVerison) return EM_STATE_UPG_SUCCESS;
  return _UpgradeRtx(firmware, device) ? EM_STATE_UPG_SUCCESS : EM_STATE_FAILED;
}

bool Pp7308Sequence::_StartUpg() {
  return _Ask(EM_NEW_CMD_REQ_START_UPG, EM_FLAG_START_UPG_ACK, PpLink::m_iWaitTime,
              "Waiting for ACK of [NOTIFY_UPG] timeout") &&
         CThread::Pause(kEraseMs);
}

Pp7308Sequence::RetValType Pp7308Sequence::_RrepareFwInfo(UpgPp::PpType type, const UpgPp::PpFw_t& firmware) {
  const std::string file = firmware.ImagePath();
  const int64_t size = firmware.m_strFileName.empty() ? -1 : XGetFileSize(file);
  if (size < 0) {
    LOGE("Get file size error!file:%s, iFileSize:%zu", file.c_str(), static_cast<size_t>(size));
    return EM_RET_ERROR;
  }
  if (size > kMaxImageBytes) {
    LOGE("Firmware %s of %lld bytes is too large, limit:%lld", file.c_str(), static_cast<long long>(size),
         static_cast<long long>(kMaxImageBytes));
    return EM_RET_ERROR;
  }
  const bool is7204 = Is7204Pp(type);
  const PpLink::Bytes data =
      PpMessages::FirmwareInfo(is7204 ? PpMessages::EM_CFG_PP_7204 : PpMessages::EM_CFG_PP_7308,
                               static_cast<uint64_t>(size), firmware.m_vecVerNum, firmware.m_strFileName);
  if (data.empty()) {
    LOGE("Firmware %s of %lld bytes cannot be announced", file.c_str(), static_cast<long long>(size));
    return EM_RET_BAD_PARAMER;
  }
  // A 7204, none of which comes this way yet, asks its user first.
  const milliseconds time = is7204 ? milliseconds(PpLink::m_i7204UpgTime) : PpLink::m_iWaitTime;
  const Answer answer =
      m_link.Request(EM_NEW_CMD_REQ_SEND_FW_INFO, EM_FLAG_SEND_FW_INFO_ACK | EM_FLAG_DO_NOT_UPG, time, data);
  if (answer == Answer::Came) return m_flags.Has(EM_FLAG_DO_NOT_UPG) ? EM_RET_ERROR : EM_RET_SUCESS;
  if (answer == Answer::GivenUp) return EM_RET_ERROR;
  LOGE("Waiting for ACK of [SEND_FW_INFO] timeout");
  return EM_RET_TIMEOUT;
}

Pp7308Sequence::RetValType Pp7308Sequence::_RrepareFwDataPack(const UpgPp::PpFw_t& firmware) {
  const std::string file = firmware.ImagePath();
  std::string image;
  if (!ReadFileToString(file, kMaxImageBytes, image)) {
    LOGE("Failed to open the [%s] file.", file.c_str());
    return EM_RET_ERROR;
  }
  if (image.empty()) {
    LOGE("Error pre loader file length!ErrVal:%ld", static_cast<long>(image.size()));
    return EM_RET_ERROR;
  }
  constexpr size_t kPackSize = PpMessages::EM_CFG_7308_PACK_SIZE;
  const auto count = static_cast<int>((image.size() + kPackSize - 1) / kPackSize);
  const auto* const bytes = reinterpret_cast<const uint8_t*>(image.data());
  uint8_t number = 1;  // wraps
  for (size_t index = 0; index < image.size(); index += kPackSize, ++number) {
    const size_t size = std::min(kPackSize, image.size() - index);
    LOGD("Index:%zu, iCount:%d, iNum:%d, Size:%zu", index, count, number, size);
    const Answer answer =
        m_link.Request(EM_NEW_CMD_REQ_SEND_DATA_PACK, EM_FLAG_SEND_PACK_ACK, PpLink::m_iWaitTime,
                       PpMessages::DataPack(number, bytes + index, size));
    if (answer == Answer::Came) continue;
    if (answer == Answer::GivenUp) return EM_RET_ERROR;
    LOGE("Waiting for ACK of [SEND_PACK] timeout.Index:%zu, iNum:%d", index, number);
    return EM_RET_TIMEOUT;
  }
  return EM_RET_SUCESS;
}

bool Pp7308Sequence::_FinishTransfer() {
  return _Ask(EM_NEW_CMD_REQ_SEND_FW_DONE, EM_FLAG_SEND_PACK_DONE_ACK, PpLink::m_iWaitTime,
              "Waiting for ACK of [SEND_PACK_DONE] timeout") &&
         CThread::Pause(kRestartMs);
}

bool Pp7308Sequence::_ReCheckVersion(const UpgPp::PpFw_t& firmware) {
  LOGI("Re-check version!");
  const Answer answer = m_link.RequestVersion(PpLink::m_iWaitTime);
  if (answer == Answer::TimedOut) LOGE("Waiting for the version after the upgrade timeout");
  if (answer != Answer::Came) return false;
  const PpInfo_t info = m_link.Info();
  if (info.strVerison == firmware.m_strVerison) return true;
  LOGE("Upgrade failed!FwVer:%s, ReadVer:%s", firmware.m_strVerison.c_str(), info.strVerison.c_str());
  return false;
}

bool Pp7308Sequence::_UpgradeRtx(const UpgPp::PpFw_t& firmware, const std::string& device) {
  if (!_Ask(EM_NEW_CMD_REQ_UPG_RTX, EM_FLAG_REQ_UPG_RTX_ACK, kRtxConsentTime,
            "Waiting for ACK of [REQ_UPG_RTX] timeout")) {
    return false;
  }
  const size_t slash = firmware.m_strFwPath.rfind('/');
  if (slash == std::string::npos) {
    std::fputs("Invalid path format.\n", stderr);
    return false;
  }
  const std::string directory = firmware.m_strFwPath.substr(0, slash + 1) + kRtxDirectory;
  LOGI("Rtx Path:%s", directory.c_str());
  // The module's exchange has a port of its own on the same device.
  m_link.CloseUart(EM_PROT_72_NEW);
  if (!_RunRtx(directory, device)) {
    if (!m_flags.Ending()) LOGE("Upg rtx failed!");
    return false;
  }
  return _NotifyRtxResult(device);
}

bool Pp7308Sequence::_RunRtx(const std::string& directory, const std::string& device) {
  // Before the start: the result may come at once.
  m_flags.Clear(EM_FLAG_UPG_PP_RTX_SUCCESS | EM_FLAG_UPG_RTX_RESULT);
  m_flags.Set(EM_FLAG_START_UPG_RTX);
  if (!m_upgPpRtx.StartUpgrade(directory, device)) {
    m_flags.Clear(EM_FLAG_START_UPG_RTX);
    LOGE("RTX upgrade of %s is refused", device.c_str());
    return false;
  }
  // A plug-out just before found nothing to stop.
  if (!m_flags.Has(EM_FLAG_PLUG_IN)) m_upgPpRtx.StopUpgrad();
  if (!m_flags.WaitFor(EM_FLAG_UPG_RTX_RESULT, kRtxUpgradeTime)) {
    if (!m_flags.Ending()) {
      LOGE("Waiting for [UPG_RTX_RESULT] timeout.m_iFlags:%d, Val:%d", m_flags.Flags(),
           m_flags.Has(EM_FLAG_UPG_RTX_RESULT));
    }
    m_upgPpRtx.StopUpgrad();
    // Its report must not be taken for the next part's.
    m_flags.WaitFor(EM_FLAG_UPG_RTX_RESULT, kRtxStopTime);
    return false;
  }
  return m_flags.Has(EM_FLAG_UPG_PP_RTX_SUCCESS);
}

void Pp7308Sequence::_UpgRtxResultCb(bool success, const std::string& message) {
  LOGI("Get result of RTX upgrading!");
  if (!success) LOGE("Upg Rtx failed!ErrMsg:%s", message.c_str());
  m_flags.Clear(EM_FLAG_START_UPG_RTX);
  m_flags.Set(EM_FLAG_UPG_RTX_RESULT | (success ? EM_FLAG_UPG_PP_RTX_SUCCESS : 0U));
}

void Pp7308Sequence::OnPlugOut() {
  if (m_flags.Has(EM_FLAG_START_UPG_RTX)) m_upgPpRtx.StopUpgrad();
}

bool Pp7308Sequence::_Ask(uint16_t cmd, uint32_t ack, milliseconds time, const char* onTimeout) {
  const Answer answer = m_link.Request(cmd, ack, time);
  if (answer == Answer::TimedOut) LOGE("%s", onTimeout);
  return answer == Answer::Came;
}

bool Pp7308Sequence::_NotifyRtxResult(const std::string& device) {
  if (!m_link.OpenUart(EM_PROT_72_NEW, device)) {
    LOGE("_OpenUart error");
    return false;
  }
  m_flags.Clear(EM_FLAG_NOTIFY_PP_RTX_RESULT_ACK);
  if (!m_link.SendBuiltFrame(PpMessages::RtxResultFrame(m_flags.Has(EM_FLAG_UPG_PP_RTX_SUCCESS)))) {
    LOGE("Failed to send cmd [EM_NEW_CMD_NOTIFY_PP_RTX_RESULT]!");
    return false;
  }
  if (!m_flags.WaitFor(EM_FLAG_NOTIFY_PP_RTX_RESULT_ACK, PpLink::m_iWaitTime)) {
    if (!m_flags.Ending()) LOGE("Waiting for ACK of [NOTIFY_PP] timeout");
    return false;
  }
  if (!m_link.CloseUart(EM_PROT_72_NEW)) LOGE("_CloseUart error");
  return true;
}
