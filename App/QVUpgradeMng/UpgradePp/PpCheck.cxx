/// Identification, versions, decision: in the order in which a part meets them.
#include "UpgradePp/PpCheck.h"

#include <chrono>

#include "BSW/Log/CLog.h"
#include "UpgradePp/PpDevices.h"

using namespace UpgPp;

namespace {

constexpr std::chrono::milliseconds m_iCheckTime(200);  ///< for a version reply
constexpr int kIdentifyTries = 2;                       ///< one for each protocol
constexpr int kVersionTries = 3;

}  // namespace

UpgradeStateType PpCheck::Identify(const std::string& device) {
  const bool is7204 = PpDevices::MayHaveStorage(device);
  m_link.CleanInfo(is7204 ? EM_PP_7204 : EM_PP_MAX);
  if (is7204) m_link.SetProtocol(EM_PROT_72_NEW);
  for (int i = 0; i < kIdentifyTries && !m_flags.Ending(); ++i) {
    const ProtocolType protocol = m_link.Protocol();
    if (!m_link.OpenUart(protocol, device)) {
      LOGE("Open uart error!");
      return EM_STATE_FAILED;
    }
    if (is7204) return EM_STATE_CHECK_VER;
    LOGI("Assuming protocol 0x%X, %s.", protocol, PpLink::TraceProtocolType(protocol));
    if (m_link.RequestVersion(m_iCheckTime) == PpLink::Answer::Came) {
      LOGI("Identify type of pp done!Type:0x%X, %s", m_link.Info().m_emPpType,
           PpLink::TraceProtocolType(protocol));
      return EM_STATE_CHECK_VER;
    }
    if (!m_link.CloseUart(protocol)) LOGE("Close uart error!");
    m_link.SetProtocol(protocol == EM_PROT_72_NEW ? EM_PROT_73_OLD : EM_PROT_72_NEW);
  }
  return EM_STATE_FAILED;
}

std::optional<PpInfo_t> PpCheck::ReadVersion() {
  for (int i = 0; i < kVersionTries && !m_flags.Has(EM_FLAG_GET_VER) && !m_flags.Ending(); ++i) {
    m_link.RequestVersion(m_iCheckTime);
  }
  return m_link.Reported();
}

UpgradeStateType PpCheck::Decide(const PpInfo_t& info, const PpFw_t& firmware) {
  switch (info.m_emPpType) {
    case EM_PP_7308:
      return _Check7308(info, firmware);
    case EM_PP_7302_03:
      m_link.CloseUart(EM_PROT_73_OLD);
      return EM_STATE_REQ_PAIR;
    case EM_PP_7204:
    case EM_PP_7204_EVT:
      return _Check7204(info, firmware);
    default:
      LOGE("Not support PP type:0x%X", info.m_emPpType);
      return EM_STATE_FAILED;
  }
}

/// One that is up to date is done: unlike a 7204 it is not paired from here.
UpgradeStateType PpCheck::_Check7308(const PpInfo_t& info, const PpFw_t& firmware) {
  if (!m_flags.Has(PackageFlag(EM_PP_7308))) {
    LOGE("Can't upg beacause of ver info not load");
    m_link.CloseUart(EM_PROT_72_NEW);
    return EM_STATE_FAILED;
  }
  _ShowVersions(info, firmware);
  if (info.strVerison != firmware.m_strVerison) return EM_STATE_UPG_PP;
  LOGI("Same version, no need upgrade");
  m_link.CloseUart(EM_PROT_72_NEW);
  return EM_STATE_UPG_SUCCESS;
}

/// One that is up to date, or for which there is no firmware, is paired.
UpgradeStateType PpCheck::_Check7204(const PpInfo_t& info, const PpFw_t& firmware) {
  _ShowVersions(info, firmware);
  if (m_flags.Has(PackageFlag(info.m_emPpType)) && info.strVerison != firmware.m_strVerison) {
    return EM_STATE_UPG_PP;
  }
  m_link.CloseUart(EM_PROT_72_NEW);
  LOGI("No need upg, destroy new protocol Serial.");
  return EM_STATE_REQ_PAIR;
}

void PpCheck::_ShowVersions(const PpInfo_t& info, const PpFw_t& firmware) const {
  LOGI("ReadVer:%s, StoreVer:%s,m_iFlags:%d ", info.strVerison.c_str(), firmware.m_strVerison.c_str(),
       m_flags.Flags());
}
