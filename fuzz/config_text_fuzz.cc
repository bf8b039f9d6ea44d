// The editor of the configuration's text: the input's first line is set as the profile of job "a"
// in the text of its other lines. Whatever the text, the edit never goes wrong unnoticed: where the
// result loads, the job has that profile; setting another one leaves no trace of the first.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "api/config_text.h"
#include "config/config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

std::optional<std::string> with_profile(std::string_view text, std::string_view profile) {
  const orv::KeyEdit edit{"profile", std::string(profile)};
  return orv::set_keys(text, "a", {&edit, 1});
}

void check_reads_back(const std::string& text, std::string_view profile) {
  const auto config = std::make_unique<orv::Config>();
  std::array<char, orv::kConfigMessageSize> message{};
  if (orv::config_parse(text, "fuzz.cfg", *config, message) != 0) return;
  const orv::Job* const job = orv::find_job(*config, "a");
  require(job != nullptr && job->profile.view() == profile);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t line_end = input.find('\n');
  const std::string_view profile = input.substr(0, line_end);
  const std::string_view text =
      line_end == std::string_view::npos ? std::string_view{} : input.substr(line_end + 1);
  const std::optional<std::string> edited = with_profile(text, profile);
  if (!edited) return 0;
  check_reads_back(*edited, profile);
  require(with_profile(*edited, "other") == with_profile(text, "other"));

  const std::optional<std::string> without = orv::remove_section(*edited, "a");
  require(without && without->size() < edited->size());
  return 0;
}
