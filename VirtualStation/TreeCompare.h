/// Compares directory trees file by file: what a package held with what a partition holds. Used by tests and
/// scenarios; knows nobody.
#pragma once

#include <string>
#include <vector>

namespace station {

struct TreeCompareOptions {
  std::vector<std::string> ignore;  ///< paths relative to the roots, with everything below them
  bool extraAllowed = false;        ///< `actual` may hold more than `expected`
};

/// Compares kind, permissions, content and link target of everything below both directories, in both
/// directions. "lost+found" at the top is no difference. Gives the first differences in words; empty when the
/// trees are equal and `expected` holds at least one file.
std::vector<std::string> TreeDifferences(const std::string& expected, const std::string& actual,
                                         const TreeCompareOptions& options = {});

}  // namespace station
