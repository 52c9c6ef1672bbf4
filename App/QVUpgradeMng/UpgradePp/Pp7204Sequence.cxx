/// Storage, mount, copy, unmount, restart. The commands are the ones that service knows from the log.
#include "UpgradePp/Pp7204Sequence.h"

#include <sys/types.h>

#include <chrono>

#include "BSW/BasicFun/BlockNodes.h"
#include "BSW/BasicFun/FileUtils.h"
#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"

using namespace UpgPp;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* m_strMountPath = "/run/media/7204";
constexpr const char* kMountParent = "/run/media";
constexpr mode_t kMountParentMode = 0755;

constexpr seconds kStorageTime(5);
/// From a disk's node to those of its partitions.
constexpr milliseconds kPartitionTime(500);
/// From the end of the copy until the part has restarted.
constexpr seconds kRestartTime(5);

}  // namespace

UpgradeStateType Pp7204Sequence::_Upg7204(const UpgPp::PpFw_t& firmware) {
  if (!_WaitForStorage()) return EM_STATE_FAILED;
  if (!_CopyFirmware(firmware)) {
    return m_flags.Has(EM_FLAG_PLUG_IN) ? EM_STATE_FAILED : EM_STATE_INTERRUPT;
  }
  return _WaitForRestart();
}

bool Pp7204Sequence::_WaitForStorage() {
  const CLock lock(m_flags.Mutex());
  LOGI("storage dev loading...");
  const bool came = m_flags.WaitHeld(kStorageTime, [this]() REQUIRES(m_flags.Mutex()) {
    return !m_devices.CurrentStorage().empty() || m_devices.IsStorageAmbiguous();
  });
  if (!came) {
    if (!m_flags.Ending()) {
      LOGE("Waiting for loading of storage dev timeout.m_iLongTermFlags:%d", m_flags.LongTermFlags());
    }
    return false;
  }
  // A disk without partitions is mounted itself.
  m_flags.WaitHeld(kPartitionTime, [this]() REQUIRES(m_flags.Mutex()) {
    return !BlockNodes::IsWholeDisk(m_devices.CurrentStorage());
  });
  m_str7204Dev = m_devices.CurrentStorage();
  if (!m_str7204Dev.empty() || m_flags.Ending()) return !m_str7204Dev.empty();
  if (m_devices.IsStorageAmbiguous()) {
    LOGE("Which storage is that of %s is not clear: plug it in alone", m_devices.Current().c_str());
  } else {
    LOGE("Storage of %s went again", m_devices.Current().c_str());
  }
  return false;
}

bool Pp7204Sequence::_CopyFirmware(const UpgPp::PpFw_t& firmware) {
  const Mount mount = _MountPp();
  if (!mount.IsMounted() || m_flags.Ending()) return false;
  const std::string path = m_strMountPath;
  LOGI("Show monut info");
  QVUpgradeTool::ExecCommand("ls " + path + "/");
  // A link of that name would lead the copy elsewhere.
  XDeleteFile(path + "/" + firmware.m_strFileName);
  const std::string command = "cp " + ShellQuote(firmware.ImagePath()) + " " + path;
  LOGI("CMd:%s", command.c_str());
  const bool written = QVUpgradeTool::ExecCommand(command) == 0;
  const bool synced = QVUpgradeTool::ExecCommand("sync") == 0;
  if (written && synced && _IsStillIn()) return true;
  if (!m_flags.Ending()) LOGE("Failed to copy fw file.");
  // The part would take a half for firmware.
  XDeleteFile(path + "/" + firmware.m_strFileName);
  return false;
}

Mount Pp7204Sequence::_MountPp() const {
  const std::string path = m_strMountPath;
  const std::string device = ShellQuote(m_str7204Dev);
  const Mount::Undo undo = {"umount " + path + " && sync", true};
  Mount mount;
  if (QVUpgradeTool::ExecCommand("findmnt " + device + " | grep " + path) == 0) {
    mount = Mount::Adopt(path, undo);
  } else {
    LOGI("Not mount");
    XCreateFullPathDir(kMountParent, kMountParentMode);
    QVUpgradeTool::ExecCommand("mkdir " + path);  // it may be there already
    const std::string command = "time mount " + device + " " + path;
    mount = Mount(path, command, undo);
    if (!mount.IsMounted()) {
      if (!m_flags.Ending()) LOGE("Failed to mount dev of 7204.Cmd:%s", command.c_str());
      return mount;
    }
  }
  if (QVUpgradeTool::ExecCommand("findmnt /run/media/7204/") == 0) {
    LOGI("mount ready");
    return mount;
  }
  LOGE("mount not ready");
  return {};
}

/// Writing to a storage that is gone succeeds as long as memory takes the bytes.
bool Pp7204Sequence::_IsStillIn() {
  const CLock lock(m_flags.Mutex());
  return m_flags.Has(EM_FLAG_PLUG_IN) && m_devices.HasStorage(m_str7204Dev);
}

UpgradeStateType Pp7204Sequence::_WaitForRestart() {
  const CLock lock(m_flags.Mutex());
  // One that is in has yet to come back.
  if (m_flags.Has(EM_FLAG_PLUG_IN)) m_flags.Clear(EM_FLAG_7204_RE_INSERT);
  // One that takes longer to go has the file all the same.
  m_flags.WaitHeld(kRestartTime, [this] { return m_flags.Has(EM_FLAG_7204_RE_INSERT); });
  return m_flags.Has(EM_FLAG_7204_RE_INSERT | EM_FLAG_PLUG_IN) ? EM_STATE_UPG_SUCCESS : EM_STATE_INTERRUPT;
}
