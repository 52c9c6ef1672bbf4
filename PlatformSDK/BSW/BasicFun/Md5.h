/// MD5 (RFC 1321) of files, through libcrypto. Packages are compared with it; it is a check against damage,
/// not against forgery.
#pragma once

#include <string>

#include "BSW/BasicFun/FileUtils.h"

namespace md5 {

/// The digest of the file's content as 32 lower-case hex digits, read with constant memory. Empty when the
/// file cannot be read to its end or `stop` turned true.
std::string MD5(const std::string& path, const StopPredicate& stop = {});

}  // namespace md5
