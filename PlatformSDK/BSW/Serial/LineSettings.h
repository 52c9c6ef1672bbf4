/// What a line record means in termios bits. CSerial is the only caller.
#pragma once

#include <termios.h>

#include <optional>

#include "BSW/Serial/UartMngInfo.h"

/// The termios speed of `rate`; empty for a value that is none of the enumerators.
std::optional<speed_t> TermiosSpeed(emSerialBaudRate rate);

/// Puts speed, data bits, parity, stop bits and flow control of `info` into `attributes`, in this order,
/// because the later steps touch bits of the earlier ones. False for an unknown speed.
bool ApplyLineFormat(const UART_MNG_INFO_S& info, termios& attributes);

/// Switches `attributes` to raw bytes, with `timeoutMs` as the pause between bytes that ends a blocking read
/// (tenths of a second, rounded down).
void ApplyRawMode(int timeoutMs, termios& attributes);
