/// The serial line to the USB audio chip's boot loader: the receive thread queues the bytes, the upgrader's
/// thread takes them. Used by the UAC upgrader alone.
#pragma once

#include <deque>

#include "BSW/Serial/IXmodemLine.h"
#include "BSW/Serial/SerialPort.h"
#include "UpgradePackage/Parts.h"
#include "common/Condition.h"
#include "common/Mutex.h"

/// The upgrader's thread calls everything but Stop.
class UacLine : public IXmodemLine {
 public:
  static constexpr const char* kDevice = Parts::Find(UP_UAC)->target[Parts::kSideA];

  UacLine();
  ~UacLine() override;

  /// False, logged, when the device cannot be opened.
  bool Open();
  void Close();

  int Receive(std::chrono::milliseconds time) override;
  void Purge() override;
  bool Send(const uint8_t* data, size_t size) override;

  /// Ends a Receive under way and every later one. Any thread.
  void Stop();

 private:
  int _Queue(const void* data, short length);

  CMutex m_mutex;
  CCondition m_cond;  ///< one of the next two changed
  std::deque<uint8_t> m_received GUARDED_BY(m_mutex);
  bool m_bStopped GUARDED_BY(m_mutex) = false;
  SerialPort m_port;  ///< last, so that its thread ends before the queue does
};
