/// What the cloud's answer to a query means for this device, and how the panel is told. Used by the cloud
/// source. Stateless; any thread.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>

#include "Backend/QuorvalenBackendServer.h"
#include "UpgradePackage/Reasons.h"

namespace OtaOffer {

/// The answer as the device takes it: a package of the installed version is none, one with an unusable
/// version or file name an error. Which version is the newer one is the backend's decision: it may take a
/// device back.
Quorvalen::QueryResult Judge(Quorvalen::QueryResult answer, const std::string& installedVersion);

/// The panel's message on a judged answer.
Json::Value Report(const Quorvalen::QueryResult& judged);

/// How much of a download is there: 0 to 99, since the end is only known when the file has been checked.
int Percent(uint64_t received, uint64_t total);

/// Why a package of `size` bytes, of which `present` are on the disk, cannot be downloaded and unpacked with
/// `available` bytes left; empty when it can.
Failure SpaceShortage(uint64_t size, uint64_t present, uint64_t available);

}  // namespace OtaOffer
