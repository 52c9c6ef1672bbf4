/// Mounts and their undoing.
#include "UpgradeFrame/Mount.h"

#include <unistd.h>

#include <utility>

#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Log/CLog.h"
#include "UpgradeFrame/QVUpgradeTool.h"

Mount Mount::Existing(std::string path) {
  Mount mount;
  mount.m_path = std::move(path);
  return mount;
}

Mount Mount::Adopt(std::string path, Undo undo) {
  Mount mount = Existing(std::move(path));
  mount.m_undo = std::move(undo);
  mount.m_bOwn = true;
  return mount;
}

Mount::Mount(std::string path, const std::string& command, Undo undo) : m_undo(std::move(undo)) {
  if (QVUpgradeTool::ExecUnlessStopped(command) != 0) return;
  m_path = std::move(path);
  m_bOwn = true;
}

Mount::~Mount() {
  _Undo();
}

Mount::Mount(Mount&& other) noexcept
    : m_path(std::move(other.m_path)),
      m_undo(std::move(other.m_undo)),
      m_bOwn(std::exchange(other.m_bOwn, false)) {
  other.m_path.clear();
}

Mount& Mount::operator=(Mount&& other) noexcept {
  if (this == &other) return *this;
  _Undo();
  m_path = std::exchange(other.m_path, {});
  m_undo = std::move(other.m_undo);
  m_bOwn = std::exchange(other.m_bOwn, false);
  return *this;
}

void Mount::_Undo() {
  if (!m_bOwn) return;
  m_bOwn = false;
  const bool undone = QVUpgradeTool::ExecCommand(m_undo.command) == 0 ||
                      (m_undo.lazily && QVUpgradeTool::ExecCommand("umount -l " + ShellQuote(m_path)) == 0);
  if (!undone) {
    LOGE("cannot unmount %s: %s", m_path.c_str(), m_undo.command.c_str());
    return;
  }
  if (m_undo.removePoint) rmdir(m_path.c_str());
}
