/// Names of block nodes, taken apart.
#include "BSW/BasicFun/BlockNodes.h"

#include <regex>
#include <utility>

bool BlockNodes::IsNode(const std::string& path) {
  static const std::regex pattern("/dev/sd[a-z]+[0-9]*");
  return std::regex_match(path, pattern);
}

std::string BlockNodes::DiskOf(const std::string& node) {
  return node.substr(0, node.find_last_not_of("0123456789") + 1);
}

bool BlockNodes::IsWholeDisk(const std::string& node) {
  return DiskOf(node) == node;
}

bool BlockNodes::ComesBefore(const std::string& left, const std::string& right) {
  return std::make_pair(left.size(), left) < std::make_pair(right.size(), right);
}
