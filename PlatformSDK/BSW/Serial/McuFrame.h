/// The frames between the base station and its MCU, and between it and newer portable parts: their
/// vocabulary, how one is built and how one is read. SerialProtocolMng sends and receives them,
/// McuFrameParser finds them in a stream.
///
/// The story: one end requests, the other responds with the same command code and data that often is a single
/// status byte; either may report unasked. Every frame is
///
///   head 0xAA 0xDD | L 2 | version 1 | project 1 | device 1 | number 1 | type 1 | code 1 | sub-code 1 | data
///   n | XOR 1
///
/// with L = n + 7 little-endian: what follows L up to the end of the data. The number counts the sender's
/// frames, the last byte is the XOR of all others. Everything here is fixed by the wire.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace McuFrame {

enum FrameInfoType {
  EM_UART_MSG_MAX_LEN = 1024,
  EM_MIN_UART_FRAME_LENGTH = 12,
  EM_VAL_HEAD_H = 0xAA,
  EM_VAL_HEAD_L = 0xDD,
  EM_PROTOCOL_HEAD_SIZE = 7,  ///< what L counts beside the data
  EM_FRAME_HEAD_SIZE = 5,     ///< what L does not count: head, L, XOR
};

/// Positions in a frame; the XOR byte stands at EM_CHECKSUM only when there is no data.
enum UartFrameIndex {
  EM_HEAD_H = 0,
  EM_HEAD_L,
  EM_LEN_L,
  EM_LEN_H,
  EM_PRO_VER,
  EM_PRO_NUM,
  EM_DEV_TYPE,
  EM_SNR,
  EM_CMD_TYPE,
  EM_CMD_CODE,
  EM_SUB_CMD_CODE,
  EM_DATA_FIELD,
  EM_CHECKSUM = EM_DATA_FIELD,
};

enum CmdType : uint8_t {
  EM_CMD_REQUEST = 1,
  EM_CMD_RESPONE = 2,
  EM_CMD_REPORT = 3,
  EM_CMD_MAX = 255,
};

/// Status bytes of responses.
enum ErrorCodeType {
  EM_SUCCESS_ERR_CODE = 0,
  EM_NOT_SUPPORT_CMD_ERR_CODE = 0xF1,
  EM_INVALID_PARAM_ERR_CODE = 0xF2,
  EM_CHECK_SUM_ERR_CODE = 0xF3,
  EM_OTHER_ERR_CODE = 255,
  EM_MAX_ERR_CODE = 256,
};

constexpr std::array<uint8_t, 2> m_FrameHead = {EM_VAL_HEAD_H, EM_VAL_HEAD_L};

/// Who talks to whom, the same in every frame of a link.
struct PayloadCfg_t {
  uint8_t m_ProtocolVer = 0;
  uint8_t m_ProjectNum = 0;
  uint8_t m_DevMasterNum = 0;
  uint8_t m_DevSlaveNum = 0;
};

/// One message. The last three fields are filled from a received frame and ignored when sending.
struct ProtocolData_t {
  uint16_t m_iCmd = 0;  ///< command code in the high byte, sub-command in the low
  CmdType m_emCmdType = EM_CMD_REQUEST;
  std::vector<uint8_t> m_vecDataField;
  uint8_t m_iProVer = 0;
  uint8_t m_iProNum = 0;
  uint8_t m_iDevType = 0;

  /// True when it carries no data.
  [[nodiscard]] bool Empty() const { return m_vecDataField.empty(); }
  void Clear() { *this = ProtocolData_t(); }
};

/// The frame that carries `data` as number `snr`; empty when the data is too long for L.
std::vector<uint8_t> Pack(const PayloadCfg_t& config, uint8_t snr, const ProtocolData_t& data);

/// What L announces: the length of the whole frame. `frame` holds at least 4 bytes.
size_t FrameSize(const uint8_t* frame);

/// Reads one whole frame whose check byte is right. Empty, after a log line, when its length does not fit.
std::optional<ProtocolData_t> Unpack(const uint8_t* frame, size_t size);

}  // namespace McuFrame
