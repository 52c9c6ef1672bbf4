/// One output line below /sys/class/gpio. The RTX upgraders power and switch their radio modules with these.
#pragma once

#include <string>

/// Used by one thread. Two objects may stand for the same line, as with the power line that the modules
/// share.
class GPIO {
 public:
  /// Where the kernel offers its lines.
  static constexpr const char* kSysfsDirectory = "/sys/class/gpio";

  /// `directory` stands in for the kernel's in tests.
  explicit GPIO(std::string directory = kSysfsDirectory);
  /// Releases the line.
  ~GPIO();
  GPIO(const GPIO&) = delete;
  GPIO& operator=(const GPIO&) = delete;

  /// Exports line `number` and makes it an output, which drives it low. A line that is exported already is
  /// taken as it is. Waits at most a second for the line's files. A line held before is released first.
  bool Init(int number);

  /// Drives the line high or low. False before Init.
  bool SetLevel(bool high);

  /// Gives the line back to the kernel if this object exported it. Idempotent.
  void Release();

 private:
  [[nodiscard]] bool _WaitForFiles() const;

  const std::string m_strDirectory;
  std::string m_strLine;  ///< the line's own directory; empty when no line is held
  int m_iNumber = -1;
  bool m_bExported = false;  ///< by this object, so that Release gives it back
};
