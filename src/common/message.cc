#include "common/message.h"

#include <cstdarg>
#include <cstdio>

namespace orv {

int fail(std::span<char> err, const char* format, ...) {
  if (err.empty()) return -1;
  va_list args;
  va_start(args, format);
  std::vsnprintf(err.data(), err.size(), format, args);
  va_end(args);
  return -1;
}

}  // namespace orv
