/// Walks both trees and says the first differences in words.
#include "VirtualStation/TreeCompare.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

namespace station {
namespace {

namespace fs = std::filesystem;

/// Everything below `root` by relative path, without what is ignored.
std::map<std::string, fs::directory_entry> List(const fs::path& root, const TreeCompareOptions& options) {
  std::map<std::string, fs::directory_entry> entries;
  std::error_code error;
  for (fs::recursive_directory_iterator i(root, error); i != fs::recursive_directory_iterator();
       i.increment(error)) {
    const std::string name = i->path().lexically_relative(root);
    const auto& ignore = options.ignore;
    if (name == "lost+found" || std::find(ignore.begin(), ignore.end(), name) != ignore.end()) {
      i.disable_recursion_pending();
      continue;
    }
    entries.emplace(name, *i);
  }
  return entries;
}

bool SameContent(const fs::path& left, const fs::path& right) {
  constexpr std::size_t kBlock = 64 * 1024;
  std::ifstream files[] = {std::ifstream(left, std::ios::binary), std::ifstream(right, std::ios::binary)};
  std::string blocks[2];
  do {
    for (int i = 0; i < 2; ++i) {
      blocks[i].resize(kBlock);
      files[i].read(blocks[i].data(), kBlock);
      blocks[i].resize(static_cast<std::size_t>(files[i].gcount()));
      if (files[i].bad() || !files[i].is_open()) {
        return false;
      }
    }
    if (blocks[0] != blocks[1]) {
      return false;
    }
  } while (!blocks[0].empty());
  return true;
}

std::string Difference(const fs::directory_entry& expected, const fs::directory_entry& actual) {
  const fs::file_status left = expected.symlink_status();
  const fs::file_status right = actual.symlink_status();
  if (left.type() != right.type()) {
    return "is of another kind";
  }
  if (fs::is_symlink(left)) {
    return fs::read_symlink(expected) == fs::read_symlink(actual) ? "" : "is a link to something else";
  }
  if (left.permissions() != right.permissions()) {
    return "has other permissions";
  }
  if (fs::is_regular_file(left) && !SameContent(expected, actual)) {
    return "has other content";
  }
  return "";
}

}  // namespace

std::vector<std::string> TreeDifferences(const std::string& expected, const std::string& actual,
                                         const TreeCompareOptions& options) {
  constexpr std::size_t kEnough = 20;
  const auto wanted = List(expected, options);
  const auto found = List(actual, options);
  std::vector<std::string> differences;
  if (wanted.empty()) {
    differences.push_back(expected + " is empty: nothing to compare with");
  }
  for (const auto& [name, entry] : wanted) {
    const auto other = found.find(name);
    const std::string difference = other == found.end() ? "is missing" : Difference(entry, other->second);
    if (!difference.empty()) {
      differences.push_back(std::string(actual).append("/").append(name).append(" ").append(difference));
    }
  }
  for (const auto& [name, entry] : found) {
    if (!options.extraAllowed && wanted.count(name) == 0) {
      differences.push_back(std::string(actual).append("/").append(name).append(" should not be there"));
    }
  }
  if (differences.size() > kEnough) {
    differences.resize(kEnough);
  }
  return differences;
}

}  // namespace station
