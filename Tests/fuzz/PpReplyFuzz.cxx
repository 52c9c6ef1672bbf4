// Feeds both version replies of portable parts any bytes. What is read out of them goes into JSON and is
// compared with stored versions, so its texts are held against that.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "BSW/BasicFun/StringUtils.h"
#include "UpgradePp/PpMessages.h"

namespace {

void Judge(const PpInfo_t& info) {
  for (const auto& text :
       {info.strProductModuleNum, info.strVerison, info.strHwVerison, info.strRtxVerison}) {
    if (!IsValidUtf8(text) || text.size() > 255) std::abort();
  }
  if (PpVersion::Normal(info.strVerison) != info.strVerison) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> reply(data, data + size);
  for (const unsigned family : {0x7204U, 0x7308U}) {
    const auto info = PpMessages::ReadVersion(family, reply);
    if (info) Judge(*info);
  }
  const auto legacy = PpMessages::ReadLegacyVersion(reply);
  if (legacy) Judge(legacy->info);
  return 0;
}
