/// Packs and unpacks MCU frames, position by position. The layout is the wire's.
#include "BSW/Serial/McuFrame.h"

#include "BSW/BasicFun/Crc.h"
#include "BSW/Log/CLog.h"

namespace McuFrame {

std::vector<uint8_t> Pack(const PayloadCfg_t& config, uint8_t snr, const ProtocolData_t& data) {
  const size_t length = data.m_vecDataField.size() + EM_PROTOCOL_HEAD_SIZE;
  if (length > UINT16_MAX) return {};
  std::vector<uint8_t> frame = {EM_VAL_HEAD_H,
                                EM_VAL_HEAD_L,
                                static_cast<uint8_t>(length),
                                static_cast<uint8_t>(length >> 8U),
                                config.m_ProtocolVer,
                                config.m_ProjectNum,
                                config.m_DevMasterNum,
                                snr,
                                data.m_emCmdType,
                                static_cast<uint8_t>(data.m_iCmd >> 8U),
                                static_cast<uint8_t>(data.m_iCmd)};
  frame.reserve(length + EM_FRAME_HEAD_SIZE);
  frame.insert(frame.end(), data.m_vecDataField.begin(), data.m_vecDataField.end());
  frame.push_back(CrcXor(frame.data(), frame.size()));
  return frame;
}

size_t FrameSize(const uint8_t* frame) {
  return static_cast<size_t>(frame[EM_LEN_L]) + 256U * frame[EM_LEN_H] + EM_FRAME_HEAD_SIZE;
}

std::optional<ProtocolData_t> Unpack(const uint8_t* frame, size_t size) {
  if (size < EM_MIN_UART_FRAME_LENGTH) {
    LOGE("Error length of uart frame!");
    return std::nullopt;
  }
  if (size != FrameSize(frame)) {
    LOGE("Length field announces %zu bytes, Frame size:%zu", FrameSize(frame), size);
    return std::nullopt;
  }
  ProtocolData_t data;
  data.m_iProVer = frame[EM_PRO_VER];
  data.m_iProNum = frame[EM_PRO_NUM];
  data.m_iDevType = frame[EM_DEV_TYPE];
  data.m_emCmdType = static_cast<CmdType>(frame[EM_CMD_TYPE]);
  data.m_iCmd = static_cast<uint16_t>(256 * frame[EM_CMD_CODE] + frame[EM_SUB_CMD_CODE]);
  data.m_vecDataField.assign(frame + EM_DATA_FIELD, frame + size - 1);
  return data;
}

}  // namespace McuFrame
