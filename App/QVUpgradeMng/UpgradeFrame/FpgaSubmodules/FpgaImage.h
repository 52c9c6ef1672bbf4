/// How an FPGA image reaches the flash: through the driver's device, in pieces. Called by the FPGA upgrader.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include "UpgradePackage/Reasons.h"

namespace FpgaImage {

/// Told after each piece how many of `total` pieces are written.
using Progress = std::function<void(size_t done, size_t total)>;

/// How long the driver may take for a piece: more than the erasing of a flash block needs.
constexpr std::chrono::seconds kPieceTime(10);

/// Copies the file `imagePath` to `devicePath` in pieces of 4096 bytes, the last one as long as what is left.
/// Fails when either cannot be opened, read or written, the image is empty, the device takes nothing for
/// `pieceTime`, or the calling thread is asked to stop. What the flash holds then is the driver's affair.
Failure Write(const std::string& imagePath, const char* devicePath, const Progress& progress,
              std::chrono::milliseconds pieceTime = kPieceTime);

}  // namespace FpgaImage
