/// The daemon's debug commands, for service. Main registers them before the debug method is served.
#pragma once

namespace DebugCommands {

/// Registers "DebugUpgPp", "rpp" and "sl" with DebugIpc. They answer on the bus thread and may run until the
/// bus is closed.
void Register();

}  // namespace DebugCommands
