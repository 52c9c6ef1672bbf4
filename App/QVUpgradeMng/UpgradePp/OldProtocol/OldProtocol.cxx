/// Hands each frame of a legacy portable part to the one callback.
#include "UpgradePp/OldProtocol/OldProtocol.h"

#include <utility>

#include "BSW/Log/CLog.h"

namespace {

/// Of the receive thread; the device comes with CreateSerial.
constexpr const char* kPortName = "SerialUndef";
constexpr uint32_t kMaxRecvLen = 1024;

}  // namespace

OldProtocol::OldProtocol(FrameRecvCallBack callback)
    : SerialPrase(kPortName, kMaxRecvLen), m_FrameRecvCb(std::move(callback)) {}

OldProtocol::~OldProtocol() {
  DestroySerial();
}

int OldProtocol::UartRecvCallback(uint8_t dataType, const uint8_t* payload, int16_t length) {
  if (payload == nullptr || length < 0) {
    LOGE("Invalid pstUartFrame");
    return -1;
  }
  if (!m_FrameRecvCb) {
    LOGE("m_FrameRecvCb not reg!");
    return -1;
  }
  return m_FrameRecvCb({dataType, {payload, payload + length}}) ? 0 : -1;
}
