/// A failure in words.
#include "UpgradePackage/Reasons.h"

#include <cstdarg>

#include "BSW/BasicFun/StringUtils.h"
#include "UpgradePackage/Parts.h"

std::string Failure::Word() const {
  std::string word = Reasons::Of(reason).word;
  const size_t star = word.find('*');
  const Parts::Part* const row = Parts::Find(part);
  if (star != std::string::npos && row != nullptr) word.replace(star, 1, row->page);
  return word;
}

std::string Failure::Text() const {
  return context.empty() ? Word() : Word() + ": " + context;
}

Failure Fail(Reason reason, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Failure failure = {reason, FormatTextV(format, args)};
  va_end(args);
  return failure;
}
