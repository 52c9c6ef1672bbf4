/// Wakes a thread of the station that polls descriptors: it is to stop, or there is news for it.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "VirtualStation/Process.h"

namespace station {

/// Any thread.
class WakeUp {
 public:
  WakeUp() {
    if (m_event < 0) {
      Halt("cannot make an event", errno);
    }
  }
  ~WakeUp() { close(m_event); }
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;

  /// What the thread polls beside its own descriptors: readable from Ring to Quiet.
  pollfd Watch() const { return {m_event, POLLIN, 0}; }
  void Ring() const { eventfd_write(m_event, 1); }
  void Quiet() const {
    eventfd_t rings = 0;
    eventfd_read(m_event, &rings);
  }

 private:
  const int m_event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
};

}  // namespace station
