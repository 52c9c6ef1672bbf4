/// Bookkeeping of events. The same event twice counts once; one that was held back counts when it is told
/// again.
#include "UpgradePp/PpDevices.h"

#include <algorithm>
#include <iterator>
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
  for (auto turn = m_turns.begin(); turn != m_turns.end();) {
    turn = turn->second == info.strDevFile ? m_turns.erase(turn) : std::next(turn);
  }
  return Event::Handle;
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

std::optional<PpDevices::Time> PpDevices::NextDue() const {
  if (m_turns.empty()) return std::nullopt;
  return m_turns.begin()->first;
}

void PpDevices::TakeNext() {
  if (m_turns.empty()) return;
  m_strCurrent = m_turns.begin()->second;
  m_turns.erase(m_turns.begin());
  const Record* const record = _Find(m_strCurrent);
  m_currentSince = record != nullptr ? record->since : Time();
}

bool PpDevices::_CameWithCurrent(Time since) const {
  return since <= m_currentSince + kTogether && m_currentSince <= since + kTogether;
}

std::set<std::string> PpDevices::_CurrentDisks() const {
  std::set<std::string> disks;
  for (const auto& [node, since] : m_storage) {
    if (_CameWithCurrent(since)) disks.insert(BlockNodes::DiskOf(node));
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

std::string PpDevices::CurrentStorage() const {
  const std::set<std::string> disks = _CurrentDisks();
  if (disks.empty() || IsStorageAmbiguous()) return {};
  const std::string& disk = *disks.begin();
  std::string first;
  for (const auto& [node, since] : m_storage) {
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
