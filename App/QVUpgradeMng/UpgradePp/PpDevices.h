/// The devices of portable parts: which serial devices are plugged in, which of them is under way, which wait
/// for their turn, and which storage nodes there are. Knows no port and no thread: its owner, UpgradePp, says
/// with which lock it is asked.
///
/// A part has one serial device; a 7204 brings a storage as well, whose nodes come one by one (disk, then
/// partitions) and about when its serial device does. USB sticks bring such nodes too.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

class PpDevices {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// What one event of a serial device leads to.
  enum class Event {
    NoChange,  ///< known already
    HeldBack,  ///< recorded; to be handled when the clock is in sync again
    Handle,
  };

  struct UsbHotPlugInfo {
    std::string strDevFile;
    bool bState = false;  ///< true = present

    bool operator==(const UsbHotPlugInfo& other) const {
      return strDevFile == other.strDevFile && bState == other.bState;
    }
  };

  /// Records that a serial device came or went; what waits for a turn of it, waits no longer. `inSync` is
  /// false while the clock is out of sync.
  Event Report(const UsbHotPlugInfo& info, bool inSync, Time now);
  /// Gives a device a turn, not before `due`.
  void AddTurn(const std::string& device, Time due) { m_turns.emplace(due, device); }
  /// The last known state of each serial device.
  [[nodiscard]] std::vector<UsbHotPlugInfo> Known() const;
  [[nodiscard]] bool AnyPresent() const;

  /// The device under way, or the last one that was; empty before the first.
  [[nodiscard]] const std::string& Current() const { return m_strCurrent; }
  /// When the next waiting device is due; nothing when none waits.
  [[nodiscard]] std::optional<Time> NextDue() const;
  /// Makes the device that is due first the current one.
  void TakeNext();

  void StorageCame(const std::string& node, Time now) { m_storage[node] = now; }
  void StorageWent(const std::string& node) { m_storage.erase(node); }
  [[nodiscard]] bool AnyStorage() const { return !m_storage.empty(); }
  /// The storage node that came with the current device: the first partition of its disk, the disk itself
  /// when it has none. Empty while there is none, and while IsStorageAmbiguous.
  [[nodiscard]] std::string CurrentStorage() const;
  /// True when the storage may be another's: two disks, or two parts that may have one, came with the current
  /// device.
  [[nodiscard]] bool IsStorageAmbiguous() const;
  [[nodiscard]] bool HasStorage(const std::string& node) const { return m_storage.count(node) != 0; }

  /// True for a serial device of the kind that a 7204 has.
  static bool MayHaveStorage(const std::string& device);

 private:
  struct Record {
    UsbHotPlugInfo info;
    bool heldBack = false;
    Time since;  ///< of this state
  };

  Record* _Find(const std::string& device);
  [[nodiscard]] bool _CameWithCurrent(Time since) const;
  /// The disks that came with the current device, each once.
  [[nodiscard]] std::set<std::string> _CurrentDisks() const;

  std::vector<Record> m_vecUsbHotPlugInfo;   ///< one per device, in the order of their first event
  std::multimap<Time, std::string> m_turns;  ///< waiting devices by when they are due
  std::string m_strCurrent;
  Time m_currentSince;                    ///< when the current device came
  std::map<std::string, Time> m_storage;  ///< since when each node is there
};
