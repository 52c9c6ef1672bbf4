/// The end of a package.
#include "UpgradeFrame/PackageEnd.h"

#include "BSW/Log/CLog.h"

void PackageEnd::Tell(const Failure& failure) {
  const bool isTold = failure.reason == Reason::Stopped || failure.part != UP_NO_TYPE;
  if (failure && !isTold) LOGE("%s", failure.Text().c_str());
}
