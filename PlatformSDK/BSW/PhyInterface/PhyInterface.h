/// Hot-plug monitor: watches "/dev/" with inotify on its own thread and tells registered callbacks which
/// device nodes come and go. The USB-stick source starts it and registers; portable-part handling registers
/// too.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <string>

#include "BSW/MultiTask/CSingleton.h"
#include "BSW/MultiTask/CThread.h"
#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

/// Full device path, and true when it was plugged in, false when removed. The result is ignored. Runs on the
/// monitor thread with the table locked: hand work to another thread, and neither register nor unregister
/// from here.
using InterfaceCallback = std::function<int(const std::string&, bool)>;
/// Pattern (ECMAScript, matched against the whole path) to callback; several callbacks may share a pattern.
using MapInterfaceCallback_t = std::multimap<std::string, InterfaceCallback>;

class PhyInterface : public CThread, public CSingleton<PhyInterface> {
 public:
  ~PhyInterface() override;

  /// Starts watching. Nodes that exist already are not reported. False, logged, when inotify or the thread
  /// fails.
  bool Init();
  /// Stops the thread, whatever it waits for, and closes the watch.
  bool CleanUp();

  bool RegisterInterface(const std::string& pattern, const InterfaceCallback& callback);
  /// Removes every callback of `pattern` and returns after the last one that runs; false when there was none.
  bool UnRegisterInterface(const std::string& pattern);

 protected:
  void ThreadProc() override;
  void OnStopRequested() override;

 private:
  friend class CSingleton<PhyInterface>;
  PhyInterface();
  /// Calls every callback whose pattern matches the node `name`.
  bool _HotProcess(const std::string& name, bool plugged);
  void _ReadEvents();
  /// Handles the events of one read from the watch.
  void _HandleEvents(const char* events, size_t length);

  std::string m_strMSID;
  CMutex m_Mutex;
  MapInterfaceCallback_t m_MapOnChange GUARDED_BY(m_Mutex);
  int m_PhyFd = -1;
  std::atomic<int> m_iWatchFd{-1};
  static const std::string m_strDevDir;
};
