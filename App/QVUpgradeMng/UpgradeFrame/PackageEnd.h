/// Where every package's way ends, whatever source it came from: the frame tells the end of an upgrade, the
/// access side that of a package that was not started.
#pragma once

#include "BSW/Log/CLog.h"
#include "UpgradePackage/Reasons.h"

namespace PackageEnd {

/// Takes why the package failed, empty when it is installed, and logs it. A stop is no failure, and that of a
/// part was logged when the part ended. Once a package, on any thread.
inline void Tell(const Failure& failure) {
  const bool isTold = failure.reason == Reason::Stopped || failure.part != UP_NO_TYPE;
  if (failure && !isTold) LOGE("%s", failure.Text().c_str());
}

}  // namespace PackageEnd
