/// The boot loader of the USB audio chip, behind a USB serial adapter. Owned by Chips; tests and scenarios
/// make it misbehave and read what it holds. The protocol is told in the source file.
#pragma once

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/Chips/Line.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// All members: any thread.
class UacLoader {
 public:
  UacLoader();

  Conduct& conduct() { return m_conduct; }
  const Conduct& conduct() const { return m_conduct; }
  Line& line() { return m_line; }

  /// All blocks of the transfer that came last, the padding of the last one included.
  Bytes Memory() const;
  /// The transfer came to its end.
  bool Complete() const;
  /// The loader starts anew; the memory remains.
  void PowerCycle();

 private:
  void _Receive(const Bytes& bytes);
  void _TimeOut();
  bool _TakeItem() REQUIRES(m_mutex);
  void _TakeBlock(std::size_t size) REQUIRES(m_mutex);
  void _Answer(Phase phase, std::uint8_t answer);

  Conduct m_conduct;
  mutable CMutex m_mutex;
  Bytes m_memory GUARDED_BY(m_mutex);
  Bytes m_input GUARDED_BY(m_mutex);
  bool m_underWay GUARDED_BY(m_mutex) = false;
  bool m_complete GUARDED_BY(m_mutex) = false;
  std::uint8_t m_nextBlock GUARDED_BY(m_mutex) = 1;
  Line m_line;  ///< last: it calls into the rest
};

}  // namespace station
