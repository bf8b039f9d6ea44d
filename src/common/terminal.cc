#include "common/terminal.h"

#include <unistd.h>

#include <cstdlib>

namespace orv {

bool color_wanted() {
  const char* const no_color = std::getenv("NO_COLOR");
  return ::isatty(STDOUT_FILENO) == 1 && (no_color == nullptr || *no_color == '\0');
}

}  // namespace orv
