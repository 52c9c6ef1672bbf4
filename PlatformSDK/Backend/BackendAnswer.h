/// The backend's answer to a query, read with a bounded parser: it comes from outside and may be anything.
#pragma once

#include <cstddef>
#include <string>

#include "Backend/BackendQuery.h"

namespace Quorvalen {

/// Longer answers are refused, and not received to their end.
constexpr size_t kMaxAnswerBytes = 64U * 1024U;

/// {"code":0,"message":"","data":null | {"softVersion","fileName","url","size","md5","releaseNote"}}; members
/// that are not known are passed over. Everything that is not exactly that is an error.
QueryResult ParseBackendAnswer(const std::string& text);

}  // namespace Quorvalen
