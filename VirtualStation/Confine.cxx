/// Confine UNIT PROGRAM [ARGUMENT...]: runs a program under the confinement that a systemd unit names, as far
/// as a unit's manager does it by system-call filters and capabilities: SystemCallFilter=,
/// SystemCallErrorNumber=, MemoryDenyWriteExecute=, RestrictAddressFamilies=, CapabilityBoundingSet=,
/// NoNewPrivileges=. Stands in front of the station's daemon in tests of the shipped unit, which is the one
/// place where all these are written. Whatever cannot be applied exactly ends it with a message. systemd
/// tells what its groups of calls hold.
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;
/// All words of a key's lines, by key; also what a group of calls holds, by "@group".
using Lists = std::map<std::string, Words>;

[[noreturn]] void Give(const std::string& up) {
  std::cerr << "Confine: " << up << std::endl;
  std::exit(EXIT_FAILURE);
}

void Add(Words& words, const std::string& text) {
  std::istringstream stream(text);
  for (std::string word; stream >> word;) words.push_back(word);
}

Lists ReadUnit(const std::string& path) {
  std::ifstream file(path);
  Lists unit;
  for (std::string line; std::getline(file, line);) {
    const std::size_t equals = line.find('=');
    if (line.empty() || line[0] == '#' || equals == std::string::npos) continue;
    Add(unit[line.substr(0, equals)], line.substr(equals + 1));
  }
  if (unit["SystemCallFilter"].empty()) Give(path + " cannot be read, or names no SystemCallFilter=");
  return unit;
}

bool IsOn(Lists& unit, const char* key) {
  return unit[key] == Words{"yes"};
}

/// Every group is a line "@name", its calls and groups follow, indented.
Lists ReadGroups() {
  std::FILE* const pipe = popen("systemd-analyze syscall-filter 2>/dev/null", "r");
  Lists groups;
  std::string group;
  std::array<char, 256> line{};
  while (pipe != nullptr && std::fgets(line.data(), line.size(), pipe) != nullptr) {
    Words words;
    Add(words, line.data());
    if (words.empty() || words[0][0] == '#') {
      if (words.empty()) group.clear();
    } else if (line[0] == '@') {
      group = words[0];
    } else if (!group.empty()) {
      groups[group].push_back(words[0]);
    }
  }
  if (pipe == nullptr || pclose(pipe) != 0) Give("systemd-analyze does not run: install systemd");
  return groups;
}

void Expand(const std::string& name, const Lists& groups, std::set<std::string>& calls) {
  if (name[0] != '@') {
    calls.insert(name);
    return;
  }
  const auto group = groups.find(name);
  if (group == groups.end()) Give("unknown group of system calls " + name);
  for (const std::string& member : group->second) Expand(member, groups, calls);
}

/// What a call that is not allowed meets.
std::uint32_t Refusal(Lists& unit) {
  const Words& name = unit["SystemCallErrorNumber"];
  if (name.empty()) return SCMP_ACT_KILL_PROCESS;
  constexpr int kHighest = 4095;
  for (int error = 1; error <= kHighest; ++error) {
    const char* known = strerrorname_np(error);
    if (known != nullptr && name == Words{known}) return SCMP_ACT_ERRNO(static_cast<std::uint32_t>(error));
  }
  Give("unknown SystemCallErrorNumber=" + name[0]);
}

/// A filter of its own: all that are loaded must agree to a call.
class Filter {
 public:
  explicit Filter(std::uint32_t otherwise) : m_filter(seccomp_init(otherwise)) {
    if (m_filter == nullptr) Give("no system-call filter");
    // The unit says whether the process may gain rights.
    seccomp_attr_set(m_filter, SCMP_FLTATR_CTL_NNP, 0);
  }
  ~Filter() { seccomp_release(m_filter); }
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  void Rule(std::uint32_t action, int call, const std::vector<scmp_arg_cmp>& arguments = {}) {
    const int error = seccomp_rule_add_array(m_filter, action, call, static_cast<unsigned>(arguments.size()),
                                             arguments.data());
    if (error != 0 && error != -EDOM) Give(std::string("no filter rule: ") + std::strerror(-error));
  }
  void Load() {
    const int error = seccomp_load(m_filter);
    if (error != 0) Give(std::string("the filter cannot be loaded: ") + std::strerror(-error));
  }

 private:
  scmp_filter_ctx m_filter;
};

void DenyWriteExecute() {
  const auto masked = [](unsigned argument, unsigned bits) {
    return scmp_arg_cmp{argument, SCMP_CMP_MASKED_EQ, bits, bits};
  };
  const std::uint32_t denied = SCMP_ACT_ERRNO(EPERM);
  Filter filter(SCMP_ACT_ALLOW);
  filter.Rule(denied, SCMP_SYS(mmap), {masked(2, PROT_WRITE | PROT_EXEC)});
  filter.Rule(denied, SCMP_SYS(mprotect), {masked(2, PROT_EXEC)});
  filter.Rule(denied, SCMP_SYS(pkey_mprotect), {masked(2, PROT_EXEC)});
  filter.Rule(denied, SCMP_SYS(shmat), {masked(2, SHM_EXEC)});
  filter.Load();
}

void RestrictFamilies(const Words& names) {
  const std::map<std::string, int> known = {
      {"AF_UNIX", AF_UNIX}, {"AF_INET", AF_INET}, {"AF_INET6", AF_INET6}, {"AF_NETLINK", AF_NETLINK}};
  std::set<int> allowed;
  for (const std::string& name : names) {
    if (known.count(name) == 0) Give("unknown address family " + name);
    allowed.insert(known.at(name));
  }
  const std::uint32_t denied = SCMP_ACT_ERRNO(EAFNOSUPPORT);
  Filter filter(SCMP_ACT_ALLOW);
  for (int family = 0; family < AF_MAX; ++family) {
    if (allowed.count(family) == 0) {
      filter.Rule(denied, SCMP_SYS(socket),
                  {scmp_arg_cmp{0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(family), 0}});
    }
  }
  filter.Rule(denied, SCMP_SYS(socket), {scmp_arg_cmp{0, SCMP_CMP_GE, AF_MAX, 0}});
  filter.Load();
}

void AllowCalls(const Words& names, const Lists& groups, std::uint32_t refusal) {
  std::set<std::string> calls;
  Expand("@default", groups, calls);  // systemd always allows these
  for (const std::string& name : names) {
    if (name[0] != '@' && seccomp_syscall_resolve_name(name.c_str()) == __NR_SCMP_ERROR) {
      Give("unknown system call " + name);
    }
    Expand(name, groups, calls);
  }
  Filter filter(refusal);
  for (const std::string& call : calls) {
    const int number = seccomp_syscall_resolve_name(call.c_str());
    if (number != __NR_SCMP_ERROR) filter.Rule(SCMP_ACT_ALLOW, number);
  }
  filter.Load();
}

/// The words of setpriv that drop every capability but these: "CAP_KILL" is its "+kill".
std::string BoundingSet(const Words& names) {
  std::string set = "-all";
  for (const std::string& name : names) {
    set += ",+";
    for (const char c : name.substr(std::strlen("CAP_"))) set += static_cast<char>(std::tolower(c));
  }
  return set;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 3) Give("UNIT PROGRAM [ARGUMENT...]");
  Lists unit = ReadUnit(argv[1]);
  const Lists groups = ReadGroups();
  const std::string boundingSet = BoundingSet(unit["CapabilityBoundingSet"]);
  const std::uint32_t refusal = Refusal(unit);
  std::vector<const char*> command = {"setpriv", "--bounding-set", boundingSet.c_str()};
  if (IsOn(unit, "NoNewPrivileges")) command.push_back("--no-new-privs");
  command.push_back("--");
  command.insert(command.end(), argv + 2, argv + argc + 1);

  if (!unit["RestrictAddressFamilies"].empty()) RestrictFamilies(unit["RestrictAddressFamilies"]);
  if (IsOn(unit, "MemoryDenyWriteExecute")) DenyWriteExecute();
  AllowCalls(unit["SystemCallFilter"], groups, refusal);
  execvp(command[0], const_cast<char**>(command.data()));
  Give(std::string("setpriv does not run: ") + std::strerror(errno));
}
