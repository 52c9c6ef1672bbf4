/// Owns the descriptor of one tty device: opens and sets the line, reads, writes. SerialPort and SerialPrase
/// put their receive threads on top of it; nobody else touches a serial device. The 10.7 ms pause of a read
/// is part of the timing that the chips were tuned with.
#pragma once

#include <memory>

#include "BSW/Serial/UartMngInfo.h"
#include "common/Condition.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Any thread may call any member at any time. Close waits until nobody uses the descriptor, and everybody
/// leaves it at once then, so that no read or write ever meets a descriptor number that was given away again.
class CSerial {
 public:
  CSerial();
  ~CSerial();
  CSerial(const CSerial&) = delete;
  CSerial& operator=(const CSerial&) = delete;

  /// Opens the device, unless the line is open already, and sets the line. The record is copied. `timeoutMs`
  /// becomes the line's inter-byte time; below 100 the line cannot be set. On false the line is closed.
  bool Open(const UART_MNG_INFO_S* info, int timeoutMs);

  /// Ends every read and write under way and closes the line; what it has not sent after 100 ms is lost.
  /// Always true; idempotent.
  bool Close();

  /// Ends every read and write under way, and those to come, until the next Open. The line stays open.
  void Interrupt();

  /// Changes the speed of the open line in place; what is in its buffers is lost. Knows every rate but
  /// 921600.
  bool SetBaudRate(emSerialBaudRate rate);

  /// Takes what the line has, at most `length` bytes. Waits for the first byte: at most `timeoutMs`, or, when
  /// `blocking`, until the line is closed or interrupted. The count; 0 when nothing came; -1 when the line is
  /// closed or broken, then after a pause of 100 ms.
  int Read(char* buffer, int length, bool blocking, int timeoutMs);

  /// Writes all `length` bytes, one caller's after another's, and gives `length`. -1 when the line is closed
  /// or broken, takes nothing for 3 s, or is closed or interrupted meanwhile; a part may have gone out then.
  int Write(const char* buf, int length);

 private:
  class Lease;
  enum class Wait { Ready, TimedOut, Interrupted, Failed };

  /// Sets the open line as `info` says.
  static bool _Configure(int fd, const UART_MNG_INFO_S& info, int timeoutMs);
  /// Waits until `fd` is ready for `events`, has failed, or the wait is interrupted; -1 waits without an end.
  [[nodiscard]] Wait _WaitReady(int fd, short events, int timeoutMs) const;
  [[nodiscard]] bool _WriteAll(int fd, const char* buf, int length) const;
  void _Close() REQUIRES(m_fdMutex);

  const int m_stopFd;                      ///< eventfd; readable while reads and writes are to end
  CMutex m_writeMutex;                     ///< serialises Write; taken before m_fdMutex
  CMutex m_fdMutex;                        ///< also guards the lifetime of the descriptor
  CCondition m_cvUnused;                   ///< m_iUsers fell to 0
  int m_fd GUARDED_BY(m_fdMutex) = -1;     ///< -1 when closed
  int m_iUsers GUARDED_BY(m_fdMutex) = 0;  ///< leases of the descriptor
  /// As of the last Open; null before the first.
  std::shared_ptr<const UART_MNG_INFO_S> m_pstUartMngInfo GUARDED_BY(m_fdMutex);
};
