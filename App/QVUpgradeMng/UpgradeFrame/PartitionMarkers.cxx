/// Reads and switches the partition markers. The boot reads them too: names, texts and the order of the steps
/// stay.
#include "UpgradeFrame/PartitionMarkers.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "BSW/BasicFun/FileUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/UpgradePaths.h"

namespace {

constexpr const char* kChooseA = "part=0";
constexpr const char* kChooseB = "part=1";

}  // namespace

PartitionMarkers::PartitionMarkers(std::string markerA, std::string markerB)
    : m_markerA(std::move(markerA)), m_markerB(std::move(markerB)) {}

std::string PartitionMarkers::RunningPartition() const {
  const bool hasA = XFilePathExists(m_markerA);
  const bool hasB = XFilePathExists(m_markerB);
  if (hasA && hasB) {
    LOGI("Both partition files exist. Defaulting to A partition: %s", m_markerA.c_str());
    return UpgradePaths::kAppA;
  }
  if (hasB) {
    LOGI("Only B partition file exists. Setting current part to B: %s", m_markerB.c_str());
    return UpgradePaths::kAppB;
  }
  if (hasA) {
    LOGI("Only A partition file exists. Setting current part to A: %s", m_markerA.c_str());
    return UpgradePaths::kAppA;
  }
  LOGI("No partition files found. Defaulting to A partition and writing to: %s", m_markerA.c_str());
  _WirtePattenFile(m_markerA.c_str(), kChooseA);
  return UpgradePaths::kAppA;
}

/// The power may go at any instant. Each step below is one that the disk holds as a whole: a deletion
/// followed by a sync of the directory, and a replacement through a synced temporary file. So what a boot can
/// find is:
///
///   A to B from {a}     {a} = A    delete a  {} = A    write b  {b} = B
///   A to B from {a, b}  {a,b} = A  delete a  {b} = B   write b  {b} = B
///   B to A from {b}     {b} = B    delete b  {} = A    write a  {a} = A
///   to A from anywhere  delete b, delete a, write a: without b it is A all along
///
/// At every instant there is one choice, the old partition or the new one, and both are whole: the new one
/// was finished and synced before the first step. A step that fails ends the switch in one of the same
/// states, B to A with B's marker put back.
bool PartitionMarkers::SwitchFrom(const std::string& currentPart) const {
  if (currentPart == UpgradePaths::kAppA) {
    return _DeleteMarker(m_markerA) && _WirtePattenFile(m_markerB.c_str(), kChooseB);
  }
  if (!_DeleteMarker(m_markerB)) return false;
  const bool toAFromB = currentPart == UpgradePaths::kAppB;
  if ((toAFromB || _DeleteMarker(m_markerA)) && _WirtePattenFile(m_markerA.c_str(), kChooseA)) return true;
  // Without any marker A would be booted although the switch has failed.
  if (toAFromB) _WirtePattenFile(m_markerB.c_str(), kChooseB);
  return false;
}

/// Replaces the content of `path` by `text` so that it survives a power cut.
bool PartitionMarkers::_WirtePattenFile(const char* path, const char* text) {
  if (path == nullptr || text == nullptr) {
    LOGE("part or upgrade flasg null");
    return false;
  }
  if (WriteFileAtomic(path, text)) return true;
  LOGE("%s cannot be written: %s", path, std::strerror(errno));
  return false;
}

bool PartitionMarkers::_DeleteMarker(const std::string& path) {
  if (XDeleteFile(path) && SyncParentDirectory(path)) return true;
  LOGE("%s cannot be deleted: %s", path.c_str(), std::strerror(errno));
  return false;
}
