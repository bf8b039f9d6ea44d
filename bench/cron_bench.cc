// Next-run computation, each kind of schedule beside a plain minute-by-minute search.
#include <benchmark/benchmark.h>
#include <time.h>

#include <array>
#include <cstdlib>

#include "config/cron.h"

namespace orv {
namespace {

constexpr std::int64_t kNow = 1796601637;  // 2026-12-07 00:00:37 UTC
constexpr std::int64_t kHorizonMinutes = std::int64_t{kCronHorizonDays} * 1440;

CronSpec cron(const char* text) {
  CronSpec fields;
  std::array<char, 128> err{};
  if (!cron_parse(text, fields, err)) std::abort();
  return fields;
}

void next_run(benchmark::State& state, const char* schedule) {
  const CronSpec fields = cron(schedule);
  for (auto _ : state) benchmark::DoNotOptimize(cron_next_run(fields, kNow, false));
}

void minute_by_minute(benchmark::State& state, const char* schedule) {
  const CronSpec fields = cron(schedule);
  for (auto _ : state) {
    std::int64_t found = kCronNoRun;
    std::int64_t at = kNow - kNow % 60 + 60;
    for (std::int64_t i = 0; i < kHorizonMinutes && found == kCronNoRun; ++i, at += 60) {
      const time_t seconds = at;
      struct tm t {};
      ::localtime_r(&seconds, &t);
      const auto weekday = static_cast<std::size_t>(t.tm_wday);
      if (fields.minute[static_cast<std::size_t>(t.tm_min)] != 0 &&
          fields.hour[static_cast<std::size_t>(t.tm_hour)] != 0 &&
          fields.day_of_month[static_cast<std::size_t>(t.tm_mday)] != 0 &&
          fields.month[static_cast<std::size_t>(t.tm_mon) + 1] != 0 &&
          fields.day_of_week[weekday] != 0) {
        found = at;
      }
    }
    benchmark::DoNotOptimize(found);
  }
}

constexpr const char* kCommon = "30 2 * * *";
constexpr const char* kBusy = "*/15 * * * *";
constexpr const char* kRare = "0 0 29 2 *";
constexpr const char* kImpossible = "0 0 30 2 *";

BENCHMARK_CAPTURE(next_run, nightly, kCommon);
BENCHMARK_CAPTURE(minute_by_minute, nightly, kCommon);
BENCHMARK_CAPTURE(next_run, quarter_hourly, kBusy);
BENCHMARK_CAPTURE(minute_by_minute, quarter_hourly, kBusy);
BENCHMARK_CAPTURE(next_run, leap_day, kRare);
BENCHMARK_CAPTURE(minute_by_minute, leap_day, kRare);
BENCHMARK_CAPTURE(next_run, impossible, kImpossible);
BENCHMARK_CAPTURE(minute_by_minute, impossible, kImpossible);

}  // namespace
}  // namespace orv
