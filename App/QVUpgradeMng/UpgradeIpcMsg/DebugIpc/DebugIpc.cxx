/// The debug method. Whatever is not understood is answered with the list of commands, so that nobody has to
/// know them.
#include "UpgradeIpcMsg/DebugIpc/DebugIpc.h"

#include <iterator>
#include <sstream>

#include "BSW/BasicFun/StringUtils.h"
#include "BSW/Dbus/CDbusHandler.h"
#include "BSW/Log/CLog.h"

namespace {

constexpr const char* kObject = "/org/Upgread/object";
constexpr const char* kInterface = "org.Upgread.interface";
constexpr const char* kMethod = "upgrade_dbus_method_UpgreadDebug";

std::vector<std::string> Words(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

}  // namespace

bool DebugIpc::Init(const char* name) {
  LOGI("debug commands of %s", name);
  const auto answer = [](const std::string& line) { return instance()->ProcDebugMsg(line); };
  return CDbusHandler::instance()->RegisteredServices(kObject, kInterface, kMethod, answer, false);
}

void DebugIpc::CleanUp() {
  CDbusHandler::instance()->UnRegisteredServices(kObject, kInterface, kMethod);
  const CLock lock(m_mutex);
  m_mapCommand.clear();
}

void DebugIpc::RegisterCommand(const std::string& name, const std::string& help, const Command& command) {
  const CLock lock(m_mutex);
  m_mapCommand[name] = {help, command};
}

std::string DebugIpc::ProcDebugMsg(const std::string& line) {
  LOGI("debug command:%s", Printable(line).c_str());
  std::vector<std::string> words = Words(line);
  Command command;
  if (!words.empty()) {
    const CLock lock(m_mutex);
    const auto entry = m_mapCommand.find(words.front());
    if (entry != m_mapCommand.end()) command = entry->second.command;
    words.erase(words.begin());
  }
  const std::optional<std::string> answer = command ? command(words) : std::nullopt;
  return answer ? *answer : _Help();
}

std::string DebugIpc::_Help() {
  std::string list = "help: lists the commands\n";
  const CLock lock(m_mutex);
  for (const auto& [name, entry] : m_mapCommand) list += name + ": " + entry.help + "\n";
  return list;
}
