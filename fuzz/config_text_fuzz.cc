// The editor of the configuration's text: the input's first line is set as the profile of job "a"
// in the text of its other lines. Whatever the text, the edit never goes wrong unnoticed: where the
// result loads, the job has that profile; setting another one leaves no trace of the first.
#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "api/config_text.h"
#include "config/config.h"
#include "fuzz/targets.h"

namespace orv::fuzz {
namespace {

std::optional<SecretString> with_profile(std::string_view text, std::string_view profile) {
  const KeyEdit edit{"profile", SecretString(profile)};
  return set_keys(text, "a", {&edit, 1});
}

// A quoted value turns the white space behind it into blanks, and the next edit finds these.
std::string with_blanks(SecretString text) {
  for (char& c : text) {
    if (c == '\v' || c == '\f' || c == '\r') c = ' ';
  }
  return std::string(std::string_view(text));
}

void check_reads_back(std::string_view text, std::string_view profile) {
  const auto config = std::make_unique<Config>();
  std::array<char, kConfigMessageSize> message{};
  if (config_parse(text, "fuzz.cfg", *config, message) != 0) return;
  const Job* const job = find_job(*config, "a");
  require(job != nullptr && job->profile.view() == profile);
}

}  // namespace

void config_text(std::string_view input) {
  const std::size_t line_end = input.find('\n');
  const std::string_view profile = input.substr(0, line_end);
  const std::string_view text =
      line_end == std::string_view::npos ? std::string_view{} : input.substr(line_end + 1);
  const std::optional<SecretString> edited = with_profile(text, profile);
  if (!edited) return;
  check_reads_back(*edited, profile);
  require(with_blanks(with_profile(*edited, "other").value()) ==
          with_blanks(with_profile(text, "other").value()));

  const std::optional<SecretString> without = remove_section(*edited, "a");
  require(without && without->size() < edited->size());
}

}  // namespace orv::fuzz
