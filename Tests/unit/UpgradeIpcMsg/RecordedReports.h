// What the controller's messages led to, in order, and a device to hold versions.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "UpgradeIpcMsg/SysCtrlIpc/ISysCtrlReports.h"

// Any thread may call any member.
class RecordedReports : public ISysCtrlReports {
 public:
  void OnBattery(int level) override {
    Add("battery " + std::to_string(level));
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_held; });
  }
  void OnClockStatus(bool inSync) override { Add(inSync ? "clock in sync" : "clock lost"); }
  std::string StoredVersion(UPGRADETYPE chip) override {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_versions[chip];
  }
  void StoreVersion(UPGRADETYPE chip, const std::string& version) override {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_versions[chip] = version;
    }
    Add("store " + version);
  }
  void ReportFault(const std::string& faultMsg) override { Add("fault " + faultMsg); }
  void SendVersionReport() override { Add("report"); }

  // While held, a battery report does not return.
  void Hold(bool held) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_held = held;
    m_changed.notify_all();
  }
  // True once `count` effects were seen.
  bool WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_effects.size() >= count; });
  }
  std::vector<std::string> Effects() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_effects;
  }

 private:
  void Add(const std::string& effect) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_effects.push_back(effect);
    m_changed.notify_all();
  }

  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_held = false;
  std::map<UPGRADETYPE, std::string> m_versions;
  std::vector<std::string> m_effects;
};
