/// The control pins of the base station as the daemon sees them: the attribute that sets boot and reset pins,
/// and the GPIO lines, exported and unexported through /sys/class/gpio. Part of Chips.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include "VirtualStation/WakeUp.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

namespace station {

struct PinChange {
  int pin;
  int level;
  std::chrono::steady_clock::time_point at;
};

/// All members: any thread.
class Pins {
 public:
  /// `changed` is called for every level that is written, in order, on a thread of the pins', from before the
  /// constructor returns until the destructor has.
  explicit Pins(std::function<void(const PinChange&)> changed);
  /// Leaves plain files in place of what it served.
  ~Pins();
  Pins(const Pins&) = delete;
  Pins& operator=(const Pins&) = delete;

  /// Every level written since the last PowerCycle, in order.
  std::vector<PinChange> Changes() const;
  /// GPIO lines that are exported now.
  std::set<int> Exported() const;
  /// Forgets the changes and takes every line back.
  void PowerCycle();

 private:
  void _Serve();
  void _Export(const std::string& text);
  void _Unexport(std::string text);
  void _Command(const std::string& text);
  void _ReadLines();
  void _Note(int pin, int level);
  void _Remove(int pin) REQUIRES(m_mutex);

  const std::function<void(const PinChange&)> m_changed;
  mutable CMutex m_mutex;
  std::vector<PinChange> m_changes GUARDED_BY(m_mutex);
  std::map<int, int> m_exported GUARDED_BY(m_mutex);  ///< line, inotify watch
  int m_command, m_export, m_unexport;
  int m_inotify;
  WakeUp m_stop;
  std::thread m_thread;
};

}  // namespace station
