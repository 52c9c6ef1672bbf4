/// The boot loader of the signal processor, behind a serial line. Owned by Chips; tests make it misbehave and
/// read what it holds. The protocol is told in the source file.
#pragma once

#include "VirtualStation/Chips/Bytes.h"
#include "VirtualStation/Chips/Conduct.h"
#include "VirtualStation/Chips/Line.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

/// All members: any thread.
class DspLoader {
 public:
  DspLoader();

  Conduct& conduct() { return m_conduct; }
  const Conduct& conduct() const { return m_conduct; }
  Line& line() { return m_line; }

  /// What it took of the image that came last.
  Bytes Memory() const;
  /// The loader waits for a length again; the memory remains.
  void PowerCycle();

 private:
  void _Receive(const Bytes& bytes);
  bool _TakeItem() REQUIRES(m_mutex);
  bool _Accepts(Phase phase);

  Conduct m_conduct;
  mutable CMutex m_mutex;
  Bytes m_memory GUARDED_BY(m_mutex);
  Bytes m_input GUARDED_BY(m_mutex);
  std::size_t m_missing GUARDED_BY(m_mutex) = 0;  ///< of the image, in bytes; 0: a length comes next
  Line m_line;                                    ///< last: it calls into the rest
};

}  // namespace station
