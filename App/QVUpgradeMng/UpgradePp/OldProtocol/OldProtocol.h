/// The receiving end of the legacy portable parts' protocol: turns each complete frame into one Frame_t. The
/// framing, its wire format and the port are SerialPrase's. UpgradePp owns the one instance.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "BSW/Serial/SerialPrase.h"

class OldProtocol final : public SerialPrase {
 public:
  struct Frame_t {
    uint8_t m_iCmd = 0;
    std::vector<uint8_t> m_vecPayload;
  };
  /// Called on the line's receive thread with no lock held. False: the frame was of no use.
  using FrameRecvCallBack = std::function<bool(const Frame_t&)>;

  explicit OldProtocol(FrameRecvCallBack callback);
  /// Closes the line. Must not run on the receive thread.
  ~OldProtocol() override;

  /// 0, or -1 for no data pointer, no callback, or a frame that the callback refuses.
  int UartRecvCallback(uint8_t dataType, const uint8_t* payload, int16_t length) override;

 private:
  const FrameRecvCallBack m_FrameRecvCb;
};
