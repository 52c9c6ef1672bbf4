/// Carries MCU frames over a serial line: packs and sends messages, finds the frames in what comes back and
/// hands each message to one handler. The MCU upgrader uses it, and the portable-part upgrader for the newer
/// parts. The frames themselves are described in McuFrame.h.
///
/// Threads: the line's receive thread appends bytes to a queue; the parser thread, which runs from
/// construction to destruction, cuts the queue into frames and calls the handler.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "BSW/MultiTask/CThread.h"
#include "BSW/Serial/McuFrame.h"
#include "BSW/Serial/SerialPort.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// The owner registers _UartRecvCallback as the line's callback and opens the line with CreateSerial.
class SerialProtocolMng final : public SerialPort, public CThread {
 public:
  using CmdType = McuFrame::CmdType;
  using PayloadCfg_t = McuFrame::PayloadCfg_t;
  using ProtocolData_t = McuFrame::ProtocolData_t;
  /// Called on the parser thread with no lock held, in the order of arrival. The result is ignored. It may
  /// close the line; other threads' DestroySerial waits for it, as for the line's callback.
  using ProtocolDataHandler = std::function<bool(const ProtocolData_t&)>;

  /// `maxFrameLen` is the largest frame accepted, in bytes. `logTraffic` appends everything received to
  /// "/data/mcu.log".
  SerialProtocolMng(const std::string& name, uint32_t maxFrameLen, const PayloadCfg_t& config,
                    bool logTraffic = false);
  /// Stops both threads. Must not run on either.
  ~SerialProtocolMng() override;

  /// Replaces the handler. A call that runs may still be the old one's, also after UnregFrameRecvCb,
  /// which has no caller yet.
  void RegFrameRecvCb(const ProtocolDataHandler& handler);
  void UnregFrameRecvCb();

  /// Sends one message as the next frame; any thread. False when it is too long or the line does not take it;
  /// the frame's number is used again then.
  bool PackAndSendFrame(const ProtocolData_t& data);

  /// The line's callback: queues `length` bytes for the parser thread; what a flood brings beyond eight
  /// frames is dropped. 0, or -1 for no bytes at all.
  int _UartRecvCallback(const void* data, short length);

 protected:
  void ThreadProc() override;
  void OnStopRequested() override;
  void LineClosed() override;

 private:
  enum RetValueType { EM_RET_SUCCESS = 0, EM_RET_ERROR = 1, EM_RET_NO_NEED = 2, EM_RET_MAX = 3 };

  /// One pass: waits for bytes, handles the frames among them, drops what is done with.
  RetValueType _ProcessRecvFrame();
  /// Waits for news and copies the queue. False when the thread is to stop.
  bool _GetRecvByte(std::vector<uint8_t>& bytes);
  void _DeleteRecvByte(size_t count);
  /// Hands a frame over; false when its line was closed or opened anew meanwhile.
  bool _HandleFrame(const uint8_t* frame, size_t size);
  void _LogTraffic(const uint8_t* data, size_t length);

  const PayloadCfg_t m_stPayloadCfg;
  const uint32_t m_iMaxRecvLen;

  CMutex m_sendMutex;                          ///< keeps frames in the order of their numbers
  uint8_t m_iSnr GUARDED_BY(m_sendMutex) = 0;  ///< of the next frame sent; wraps

  CMutex m_handlerMutex;
  ProtocolDataHandler m_ProtocolDataHandler GUARDED_BY(m_handlerMutex);

  CMutex m_RecvLock;
  CCondition m_cvBufferRead;  ///< m_bBufferReadFlag was set, or the parser thread is to stop
  std::deque<uint8_t> m_deqRecvBuf GUARDED_BY(m_RecvLock);  ///< received, not yet parsed
  /// The line number under which m_deqRecvBuf was read.
  uint32_t m_iQueuedLine GUARDED_BY(m_RecvLock) = 0;
  std::thread::id m_handlingThread GUARDED_BY(m_RecvLock);  ///< of a handler that runs
  CCondition m_cvHandled;                                   ///< m_handlingThread was cleared
  /// Bytes were dropped, and none has found room since.
  bool m_bOverflow GUARDED_BY(m_RecvLock) = false;
  std::atomic<bool> m_bBufferReadFlag{false};  ///< there are new bytes
  std::atomic<bool> m_bIncomplete{false};      ///< what is queued is not yet a frame

  std::vector<uint8_t> m_vecRecvFrame;  ///< the pass's copy of the queue; parser thread only
  uint32_t m_iCopiedLine = 0;           ///< m_iQueuedLine at the time of the copy; parser thread only
  std::ofstream m_osLog;                ///< receive thread only, once it runs
};
