/// Check values of the serial protocols.
#pragma once

#include <cstddef>
#include <cstdint>

/// XOR of all bytes; 0 for none.
uint8_t CrcXor(const uint8_t* data, size_t length);

/// CRC-16/XMODEM: polynomial 0x1021, initial value 0, not reflected, no final XOR. "123456789" gives 0x31C3.
uint16_t CRC16_XMODEM(const uint8_t* data, size_t length);
