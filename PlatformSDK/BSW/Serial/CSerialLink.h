/// What SerialPort and SerialPrase share: one line with a receive thread, from creation through restarts to
/// the end, and the labels of its traffic dumps. The two differ in what they make of the received bytes.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "BSW/MultiTask/CThread.h"
#include "BSW/Serial/CSerial.h"
#include "BSW/Serial/UartMngInfo.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call the public members, the receive thread's callbacks included, unless said otherwise.
class CSerialLink {
 public:
  enum SerialName { SERIAL_NAME_SENDER = 0, SERIAL_NAME_RECV = 1, SERIAL_NAME_MAX = 2 };
  enum SerialDataType { SERIAL_DATA_STRING = 0, SERIAL_DATA_HEX = 1, SERIAL_DATA_MAX = 2 };

  CSerialLink(const CSerialLink&) = delete;
  CSerialLink& operator=(const CSerialLink&) = delete;

  /// Opens the line and starts the receive thread, if it does not run. An open line is set anew, but stays on
  /// its device. The record is copied; its labels, where not empty, replace the port's. False: nothing is
  /// open.
  bool CreateSerial(const UART_MNG_INFO_S* info);

  /// Stops the receive thread and closes the line; a read or write under way ends at once. Waits for a
  /// callback that runs: hold no lock that it takes. Nothing that was received is delivered afterwards.
  /// Called by a callback it closes the line and gives false; the thread ends with the callback. Idempotent.
  bool DestroySerial();

  /// Closes the line and opens it with these settings; the receive thread goes on. False: the line is closed
  /// and the thread idles until a later CreateSerial or RestartSerial succeeds.
  bool RestartSerial(const UART_MNG_INFO_S* info);

  /// Replaces the labels of the two ends in dumps. No caller yet.
  void ModifySerialName(const std::string& master, const std::string& slaver);

  /// Logs traffic: as text, or as hexadecimal digits into the access log.
  void DumpFrame(SerialName from, SerialDataType type, const char* data, int length) const;

 protected:
  /// `name` names the receive thread "SP:" + name. The labels hold until a record or ModifySerialName
  /// replaces them.
  CSerialLink(const std::string& name, uint32_t maxRecvLen, std::string master, std::string slaver);
  /// The destructor of every derived class calls DestroySerial first: the thread runs its functions.
  virtual ~CSerialLink() = default;

  /// DestroySerial closed the line, on the thread that calls it, with no lock held: what was received and is
  /// not delivered yet is to be forgotten.
  virtual void LineClosed() {}

  /// The receive thread's body: while IsReceiving, waits until the line is usable, reads, and recovers.
  virtual void ReceiveLoop() = 0;

  [[nodiscard]] bool IsReceiving() const { return m_Thread.IsRunning(); }
  /// True when the line may be used; otherwise false after at most `idleMs`, at once on a stop.
  bool WaitUntilUsable(uint32_t idleMs);
  [[nodiscard]] bool IsUsable() const;
  /// Another number after each opening and each DestroySerial: bytes read under different numbers do not
  /// belong together.
  [[nodiscard]] uint32_t LineNumber() const { return m_iLine.load(); }
  /// Reopens line `number` with its settings after a failed read, unless somebody else did or stopped it
  /// meanwhile.
  void Recover(uint32_t number);

  const std::unique_ptr<CSerial> m_pCSerial = std::make_unique<CSerial>();
  const uint32_t m_recvMaxLen;

 private:
  class ReceiveThread final : public CThread {
   public:
    ReceiveThread(std::string name, CSerialLink& link) : CThread(std::move(name)), m_link(link) {}

   protected:
    void ThreadProc() override { m_link.ReceiveLoop(); }
    void OnStopRequested() override { m_link._WakeReceiver(); }

   private:
    CSerialLink& m_link;
  };

  /// Opens the line with `info` and makes it usable, or leaves it closed and unusable.
  bool _OpenLine(const UART_MNG_INFO_S& info) REQUIRES(m_portMutex);
  /// Closes and opens the line.
  bool _Reopen(const UART_MNG_INFO_S& info) REQUIRES(m_portMutex);
  void _WakeReceiver();

  mutable CMutex m_portMutex;                        ///< also serialises open, close and restart
  CCondition m_cvUsable;                             ///< m_bRunFlag was set, or the thread is to stop
  bool m_bRunFlag GUARDED_BY(m_portMutex) = true;    ///< the line may be used
  bool m_bStopping GUARDED_BY(m_portMutex) = false;  ///< DestroySerial is under way: nobody opens the line
  UART_MNG_INFO_S m_serialInfo GUARDED_BY(m_portMutex);  ///< what a recovery opens
  std::atomic<uint32_t> m_iLine{0};

  mutable CMutex m_nameMutex;
  std::string m_SerialMasterName GUARDED_BY(m_nameMutex);
  std::string m_SerialSlaverName GUARDED_BY(m_nameMutex);

  const std::string m_Name;
  ReceiveThread m_Thread;
};
