/// One mounted file system for as long as it is needed: a stick that is read, a belt pack's storage, a new
/// root file system. The only place where the daemon mounts and unmounts.
#pragma once

#include <memory>
#include <optional>
#include <string>

class Mount {
 public:
  /// How a mount of ours is undone.
  struct Undo {
    std::string command;       ///< for instance "umount /run/media/sda1"
    bool lazily = false;       ///< when that fails, because a file is open or the device was pulled
    bool removePoint = false;  ///< the mount point was made for this mount alone
  };

  /// Nothing is mounted.
  Mount() = default;
  /// What somebody else has mounted at `path`; it stays mounted.
  static Mount Existing(std::string path);
  /// What is mounted at `path` already, from now on as if mounted by this object.
  static Mount Adopt(std::string path, Undo undo);
  /// Runs `command`, which mounts at `path`, and owns the mount. A failure is not logged and leaves an
  /// unmounted object. No command is run once the calling thread was asked to stop.
  Mount(std::string path, const std::string& command, Undo undo);
  /// Undoes a mount of our own, also while the daemon stops; a failure is logged.
  ~Mount() = default;
  Mount(Mount&&) = default;
  Mount& operator=(Mount&&) = default;
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  [[nodiscard]] bool IsMounted() const { return m_mounted != nullptr; }
  /// Where the files are; empty when nothing is mounted.
  [[nodiscard]] std::string Path() const { return m_mounted ? m_mounted->path : std::string(); }

  /// Leaves the mount behind: nothing is undone any more.
  void Keep() {
    if (m_mounted) m_mounted->undo.reset();
  }

 private:
  struct Mounted {
    std::string path;
    std::optional<Undo> undo;  ///< of a mount of ours
  };
  struct Unmount {
    void operator()(Mounted* mounted) const;
  };

  Mount(std::string path, std::optional<Undo> undo);

  std::unique_ptr<Mounted, Unmount> m_mounted;
};
