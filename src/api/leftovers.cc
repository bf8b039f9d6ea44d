#include "api/leftovers.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "api/config_history.h"
#include "api/config_replace.h"
#include "api/tokens.h"
#include "common/files.h"
#include "common/replacement_file.h"
#include "common/text.h"
#include "net/certificate.h"

namespace orv {
namespace {

bool process_gone(std::uint32_t pid) {
  return ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

// Removes "<prefix><pid>" for every pid that no process has.
void remove_dead(const std::string& prefix) {
  const std::string directory = directory_of(prefix);
  const std::string_view name_prefix = std::string_view(prefix).substr(prefix.rfind('/') + 1);
  for (const std::string& name : directory_names(directory)) {
    if (!name.starts_with(name_prefix)) continue;
    std::uint32_t pid = 0;
    const std::string_view digits = std::string_view(name).substr(name_prefix.size());
    if (!parse_u32(digits, pid) || pid == 0 || pid > INT32_MAX || !process_gone(pid)) continue;
    (void)::unlink(std::string(directory).append("/").append(name).c_str());
  }
}

}  // namespace

void remove_config_leftovers(const std::string& config_path) {
  remove_dead(config_temporary_prefix(config_path));
  remove_dead(copy_temporary_prefix(history_directory(config_path)));
}

void remove_tokens_leftovers(const std::string& tokens_path) {
  remove_dead(tokens_temporary_prefix(tokens_path));
}

void remove_pair_leftovers(const std::string& cert_path, const std::string& key_path) {
  remove_dead(pair_temporary_prefix(cert_path));
  remove_dead(pair_temporary_prefix(key_path));
}

}  // namespace orv
