/// How the unit is rebooted: by the frame after an upgrade, and by the access side when a package failed that
/// left half a page behind.
#pragma once

/// Before the reboot: the panel's display watchdog would interfere with it.
inline constexpr const char* kStopDisplayWatchdogCommand = "systemctl stop lcd-esd-check.service";
inline constexpr const char* kRebootCommand = "reboot -f";
