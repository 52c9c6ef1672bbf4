/// The daemon's debug commands, for service. Main registers them before the debug method is served.
#pragma once

class BatteryLevel;

namespace DebugCommands {

/// Registers "DebugUpgPp", "rpp" and "sl" with DebugIpc. They answer on the bus thread and may run until the
/// bus is closed. "DebugUpgPp" holds it up for as long as the part takes its request, the line's time limit
/// at most; the others return at once.
void Register(BatteryLevel& battery);

}  // namespace DebugCommands
