/// One file system of a USB stick for as long as it is read: found where the system mounted it, else mounted
/// read-only by us. Used by the USB-stick source alone.
#pragma once

#include <string>

class UdiskMount {
 public:
  /// `node` is a block device such as "/dev/sda1". A failure is logged and leaves an unmounted object.
  explicit UdiskMount(const std::string& node);
  /// Undoes a mount of our own, also while the daemon stops; a mount of the system stays.
  ~UdiskMount();
  UdiskMount(const UdiskMount&) = delete;
  UdiskMount& operator=(const UdiskMount&) = delete;

  bool IsMounted() const { return !m_path.empty(); }
  /// Where the files are; empty when not mounted.
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
  bool m_bOwn = false;  ///< mounted by us
};
