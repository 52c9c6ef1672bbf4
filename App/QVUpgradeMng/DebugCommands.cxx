/// What service can do to a running daemon. The bus thread runs the commands: what takes time is done on its
/// owner's thread, but for the request of "DebugUpgPp", which is written here and may wait for the line.
#include "DebugCommands.h"

#include <optional>
#include <string>
#include <vector>

#include "UpgradeIpcMsg/DebugIpc/DebugIpc.h"
#include "UpgradePp/UpgradePp.h"

namespace {

using Words = std::vector<std::string>;
using Answer = std::optional<std::string>;

Answer AskPpVersion(const Words& words) {
  if (!words.empty()) return std::nullopt;
  return UpgradePp::instance()->Debug() ? "Send cmd req ver!" : "no portable part to ask";
}

Answer ReloadPpFirmware(const Words& words) {
  if (!words.empty()) return std::nullopt;
  UpgradePp::instance()->ReloadVeriosn();
  return "the PP firmware information is loaded anew";
}

Answer SwitchLowBatteryLimit(BatteryLevel& battery, const Words& words) {
  if (words == Words{"on"} || words == Words{"off"}) {
    battery.SwitchBatteryLimited(words.front() == "on");
  } else if (!words.empty()) {
    return std::nullopt;
  }
  return BatteryLevel::LimitText(battery.IsBatteryLimited());
}

}  // namespace

void DebugCommands::Register(BatteryLevel& battery) {
  DebugIpc* const debug = DebugIpc::instance();
  debug->RegisterCommand("DebugUpgPp", "asks the connected PP for its versions", AskPpVersion);
  debug->RegisterCommand("rpp", "reloads the PP firmware information", ReloadPpFirmware);
  debug->RegisterCommand("sl", "on|off switches the low-battery limit, alone tells it",
                         [&battery](const Words& words) { return SwitchLowBatteryLimit(battery, words); });
}
