/// Bookkeeping of events. The same event twice counts once; one that was held back counts when it is told
/// again.
#include "UpgradePp/PpDevices.h"

#include <algorithm>
#include <regex>

#include "BSW/BasicFun/BlockNodes.h"

namespace {

constexpr const char* m_str7204DeviceFile = "/dev/ttyACM[0-9]";

/// What comes within this time of a part may belong to it. The nodes of one part come within a second, but
/// the hot-plug monitor syncs the disks before it tells of each; where that takes longer than this the part
/// is left without a storage, and asked again at its next plug-in.
constexpr std::chrono::seconds kTogether(10);

}  // namespace

PpDevices::Event PpDevices::Report(const UsbHotPlugInfo& info, bool inSync, Time now) {
  Record* record = _Find(info.strDevFile);
  const bool isKnown = record != nullptr && record->info == info;
  if (isKnown && !(record->heldBack && inSync)) return Event::NoChange;
  if (record == nullptr) record = &m_vecUsbHotPlugInfo.emplace_back();
  if (!isKnown) *record = {info, false, now};
  record->heldBack = !inSync;
  if (record->heldBack) return Event::HeldBack;
  m_deqTurns.erase(std::remove_if(m_deqTurns.begin(), m_deqTurns.end(),
                                  [&info](const Turn& turn) { return turn.device == info.strDevFile; }),
                   m_deqTurns.end());
  return Event::Handle;
}

void PpDevices::AddTurn(const std::string& device, Time due) {
  m_deqTurns.push_back({device, due});
}

std::vector<PpDevices::UsbHotPlugInfo> PpDevices::Known() const {
  std::vector<UsbHotPlugInfo> known;
  known.reserve(m_vecUsbHotPlugInfo.size());
  for (const Record& record : m_vecUsbHotPlugInfo) known.push_back(record.info);
  return known;
}

bool PpDevices::AnyPresent() const {
  return std::any_of(m_vecUsbHotPlugInfo.begin(), m_vecUsbHotPlugInfo.end(),
                     [](const Record& record) { return record.info.bState; });
}

std::deque<PpDevices::Turn>::const_iterator PpDevices::_Next() const {
  return std::min_element(m_deqTurns.begin(), m_deqTurns.end(),
                          [](const Turn& left, const Turn& right) { return left.due < right.due; });
}

std::optional<PpDevices::Time> PpDevices::NextDue() const {
  const auto next = _Next();
  if (next == m_deqTurns.end()) return std::nullopt;
  return next->due;
}

void PpDevices::TakeNext() {
  const auto next = _Next();
  if (next == m_deqTurns.end()) return;
  m_strCurrent = next->device;
  m_deqTurns.erase(next);
  const Record* const record = _Find(m_strCurrent);
  m_currentSince = record != nullptr ? record->since : Time();
}

void PpDevices::StorageCame(const std::string& node, Time now) {
  StorageWent(node);
  m_vecStorage.push_back({node, now});
}

void PpDevices::StorageWent(const std::string& node) {
  m_vecStorage.erase(std::remove_if(m_vecStorage.begin(), m_vecStorage.end(),
                                    [&node](const Storage& storage) { return storage.node == node; }),
                     m_vecStorage.end());
}

bool PpDevices::_CameWithCurrent(Time since) const {
  return since <= m_currentSince + kTogether && m_currentSince <= since + kTogether;
}

std::set<std::string> PpDevices::_CurrentDisks() const {
  std::set<std::string> disks;
  for (const Storage& storage : m_vecStorage) {
    if (_CameWithCurrent(storage.since)) disks.insert(BlockNodes::DiskOf(storage.node));
  }
  return disks;
}

bool PpDevices::IsStorageAmbiguous() const {
  const auto parts =
      std::count_if(m_vecUsbHotPlugInfo.begin(), m_vecUsbHotPlugInfo.end(), [this](const Record& record) {
        return record.info.bState && MayHaveStorage(record.info.strDevFile) && _CameWithCurrent(record.since);
      });
  return parts > 1 || _CurrentDisks().size() > 1;
}

bool PpDevices::HasStorage(const std::string& node) const {
  return std::any_of(m_vecStorage.begin(), m_vecStorage.end(),
                     [&node](const Storage& storage) { return storage.node == node; });
}

std::string PpDevices::CurrentStorage() const {
  const std::set<std::string> disks = _CurrentDisks();
  if (disks.empty() || IsStorageAmbiguous()) return {};
  const std::string& disk = *disks.begin();
  std::string first;
  for (const Storage& storage : m_vecStorage) {
    const std::string& node = storage.node;
    if (BlockNodes::DiskOf(node) != disk || BlockNodes::IsWholeDisk(node)) continue;
    if (first.empty() || BlockNodes::ComesBefore(node, first)) first = node;
  }
  return first.empty() ? disk : first;
}

bool PpDevices::MayHaveStorage(const std::string& device) {
  static const std::regex pattern(m_str7204DeviceFile);
  return std::regex_match(device, pattern);
}

PpDevices::Record* PpDevices::_Find(const std::string& device) {
  const auto found =
      std::find_if(m_vecUsbHotPlugInfo.begin(), m_vecUsbHotPlugInfo.end(),
                   [&device](const Record& record) { return record.info.strDevFile == device; });
  return found == m_vecUsbHotPlugInfo.end() ? nullptr : &*found;
}
