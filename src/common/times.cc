#include "common/times.h"

#include <time.h>

#include <array>

namespace orv {
namespace {

// The compiler checks the formats where callers write them, and cannot see them here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

using Converter = struct tm* (*)(const time_t*, struct tm*);

[[gnu::format(strftime, 3, 0)]] std::string format_time(std::int64_t time, Converter convert,
                                                        const char* format) {
  const time_t seconds = time;
  struct tm civil {};
  std::array<char, 128> text{};
  if (convert(&seconds, &civil) == nullptr) return {};
  return {text.data(), ::strftime(text.data(), text.size(), format, &civil)};
}

}  // namespace

std::string format_local(std::int64_t time, const char* format) {
  return format_time(time, ::localtime_r, format);
}

std::string format_utc(std::int64_t time, const char* format) {
  return format_time(time, ::gmtime_r, format);
}

#pragma GCC diagnostic pop

std::string local_time_cell(std::int64_t time) {
  if (time < 1 || time == INT64_MAX) return "-";
  const std::string text = format_local(time, "%Y-%m-%d %H:%M:%S");
  return text.empty() ? "-" : text;
}

}  // namespace orv
