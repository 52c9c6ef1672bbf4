// A directory of a test's own, gone with the test, and the files in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

class TempDirectory {
 public:
  explicit TempDirectory(const std::string& parent = "/tmp") : m_path(parent + "/qv-unit-XXXXXX") {
    if (mkdtemp(m_path.data()) == nullptr) std::abort();
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::string& Path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }
  size_t EntryCount() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(m_path), {}));
  }

 private:
  std::string m_path;
};

inline std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}
