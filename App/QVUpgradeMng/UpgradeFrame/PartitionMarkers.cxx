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
  if (const Failure failure = _WirtePattenFile(m_markerA.c_str(), kChooseA))
    LOGE("%s", failure.Text().c_str());
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
/// was finished and synced before the first step. A step that fails may have taken effect all the same, for
/// this boot or after a cut: where it changed the choice, the old one is put back. From a failed switch to
/// the new partition the unit would boot without the boot loader that belongs to it.
Failure PartitionMarkers::SwitchFrom(const std::string& currentPart) const {
  Failure failure = currentPart == UpgradePaths::kAppA ? _ChooseB() : _ChooseA(currentPart);
  if (failure) _PutBack(currentPart);
  return failure;
}

Failure PartitionMarkers::_ChooseA(const std::string& currentPart) const {
  if (Failure failure = _DeleteMarker(m_markerB)) return failure;
  if (currentPart != UpgradePaths::kAppB) {
    if (Failure failure = _DeleteMarker(m_markerA)) return failure;
  }
  return _WirtePattenFile(m_markerA.c_str(), kChooseA);
}

Failure PartitionMarkers::_ChooseB() const {
  if (Failure failure = _DeleteMarker(m_markerA)) return failure;
  return _WirtePattenFile(m_markerB.c_str(), kChooseB);
}

/// Each step is done whatever became of the one before: what cannot be synced is still what a reboot in order
/// finds.
void PartitionMarkers::_PutBack(const std::string& currentPart) const {
  const bool toB = currentPart == UpgradePaths::kAppB;
  if (_ChoosesB() == toB) return;
  const Failure deleted = _DeleteMarker(toB ? m_markerA : m_markerB);
  const Failure written =
      toB ? _WirtePattenFile(m_markerB.c_str(), kChooseB) : _WirtePattenFile(m_markerA.c_str(), kChooseA);
  for (const Failure& lost : {deleted, written}) {
    if (lost) LOGE("%s", lost.Text().c_str());
  }
}

bool PartitionMarkers::_ChoosesB() const {
  return XFilePathExists(m_markerB) && !XFilePathExists(m_markerA);
}

/// Replaces the content of `path` by `text` so that it survives a power cut.
Failure PartitionMarkers::_WirtePattenFile(const char* path, const char* text) {
  if (path == nullptr || text == nullptr) {
    LOGE("part or upgrade flasg null");
    return Fail(Reason::MarkerWrite, "no path or no text");
  }
  if (WriteFileAtomic(path, text)) return {};
  return Fail(Reason::MarkerWrite, "%s cannot be written: %s", path, std::strerror(errno));
}

Failure PartitionMarkers::_DeleteMarker(const std::string& path) {
  if (XDeleteFile(path) && SyncParentDirectory(path)) return {};
  return Fail(Reason::MarkerWrite, "%s cannot be deleted: %s", path.c_str(), std::strerror(errno));
}
