#include "config/after_list.h"

#include "common/message.h"
#include "common/text.h"

namespace orv {

bool parse_after(std::string_view text, std::vector<JobName>& out, std::span<char> err) {
  if (text.size() > kMaxAfterText) return refuse(err, "'after' value too long");
  // Empty items are skipped; a blank one stands where a name should be.
  std::vector<JobName> names;
  for (std::string_view item; next_list_item(text, item);) {
    const std::string_view name = trim(item);
    if (name.empty()) return refuse(err, "empty job name in 'after'");
    if (names.size() == kMaxAfter) return refuse(err, "too many 'after' entries");
    if (!names.emplace_back().set(name)) {
      return refuse(err, "job name '%.*s' too long", static_cast<int>(name.size()), name.data());
    }
  }
  if (names.empty()) return refuse(err, "empty job name in 'after'");
  out.swap(names);
  return true;
}

std::string after_text(const Job& job) {
  std::string text;
  for (const JobName& name : job.after) {
    if (!text.empty()) text += ",";
    text += name.view();
  }
  if (!text.empty() && job.after_mode == AfterMode::Finished) text += " (finished)";
  return text;
}

}  // namespace orv
