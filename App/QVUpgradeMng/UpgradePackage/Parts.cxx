/// What of the rows depends on the side of the unit.
#include "UpgradePackage/Parts.h"

const char* Parts::TargetOn(const Part& part, std::string_view partition) {
  const Part& application = *Find(UP_APP);
  for (const Side side : {kSideA, kSideB}) {
    if (partition == application.target[side]) return part.target[side];
  }
  return nullptr;
}
