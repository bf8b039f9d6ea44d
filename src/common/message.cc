#include "common/message.h"

#include <cstdarg>
#include <cstdio>

namespace orv {

namespace {

[[gnu::format(printf, 2, 0)]] void write_message(std::span<char> err, const char* format,
                                                 va_list args) {
  if (!err.empty()) std::vsnprintf(err.data(), err.size(), format, args);
}

}  // namespace

int fail(std::span<char> err, const char* format, ...) {
  va_list args;
  va_start(args, format);
  write_message(err, format, args);
  va_end(args);
  return -1;
}

bool refuse(std::span<char> err, const char* format, ...) {
  va_list args;
  va_start(args, format);
  write_message(err, format, args);
  va_end(args);
  return false;
}

}  // namespace orv
