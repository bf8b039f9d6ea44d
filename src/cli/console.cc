#include "cli/console.h"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "common/log.h"

namespace orv {

int complain(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::fprintf(stderr, "%serror: ", journal_prefix(LogLevel::Error));
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  va_end(args);
  return kExitFailed;
}

std::unique_ptr<Config> load_config(const CommandContext& context) {
  auto config = std::make_unique<Config>();
  std::array<char, kConfigMessageSize> err{};
  if (config_load(context.config_path, *config, err) == 0) return config;
  (void)complain("%s", err.data());
  return nullptr;
}

}  // namespace orv
