/// A serial line whose received bytes go, chunk by chunk, to one callback. The upgraders of the RTX modules,
/// the UAC chip, the MCU and the portable parts talk through it. Chunks are not packets: a message may arrive
/// in pieces, and two in one chunk.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "BSW/Serial/CSerialLink.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

class SerialPort : public CSerialLink {
 public:
  /// Called on the receive thread with no lock held. It must not block for long; copying the bytes into a
  /// queue is what it is for. The result is ignored.
  using SerialRecvCallback = std::function<int(const void* data, short length)>;

  /// `maxRecvLen` is the longest chunk, in bytes; at most 32767 count.
  SerialPort(const std::string& name, uint32_t maxRecvLen);
  ~SerialPort() override;

  /// Writes all `length` bytes; see CSerial::Write. The count, or -1.
  int SendFrame(const char* frame, int length);

  /// Replaces the callback. A call that runs may still be the old one's, also after
  /// UnRegisterUartEventCallback, which has no caller yet.
  void RegisterUartEventCallback(const SerialRecvCallback& callback);
  void UnRegisterUartEventCallback();

  /// Sum of the bytes modulo 256. No caller yet.
  static uint8_t GetSum(const std::vector<uint8_t>& bytes);

 protected:
  void ReceiveLoop() override;

 private:
  void _HandOver(int length);

  std::vector<char> m_RecvBuff;  ///< receive thread only
  CMutex m_callbackMutex;
  SerialRecvCallback m_RecvFun GUARDED_BY(m_callbackMutex);
};
