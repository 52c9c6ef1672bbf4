/// Mounts and their undoing.
#include "UpgradeFrame/Mount.h"

#include <unistd.h>

#include <utility>

#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"

Mount::Mount(std::string path, const std::string& command, Undo undo) {
  if (QVUpgradeTool::ExecUnlessStopped(command) == 0) *this = Mount(std::move(path), std::move(undo));
}

Mount::Mount(std::string path, std::optional<Undo> undo)
    : m_mounted(new Mounted{std::move(path), std::move(undo)}) {}

Mount Mount::Existing(std::string path) {
  return {std::move(path), std::nullopt};
}

Mount Mount::Adopt(std::string path, Undo undo) {
  return {std::move(path), std::move(undo)};
}

void Mount::Unmount::operator()(Mounted* mounted) const {
  const std::unique_ptr<const Mounted> gone(mounted);
  if (!gone->undo) return;
  const auto& [command, lazily, removePoint] = *gone->undo;
  const std::string& path = gone->path;
  if (QVUpgradeTool::ExecCommand(command) == 0 ||
      (lazily && QVUpgradeTool::ExecCommand("umount -l " + ShellQuote(path)) == 0)) {
    if (removePoint) rmdir(path.c_str());
  } else {
    LOGE("cannot unmount %s: %s", path.c_str(), command.c_str());
  }
}
