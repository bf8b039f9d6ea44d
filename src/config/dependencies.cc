#include "config/dependencies.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <string>

#include "common/message.h"
#include "common/text.h"
#include "config/job_index.h"

namespace orv {
namespace {

enum class Colour : std::uint8_t { NotVisited, OnPath, Finished };

struct Search {
  const std::vector<Job>& jobs;
  JobIndex index;
  std::vector<Colour> colours;
  std::vector<std::size_t> path;
};

// The circle that leads along the path back to `job`.
int report_cycle(const Search& search, std::size_t job, std::span<char> err) {
  std::string text;
  for (auto at = std::find(search.path.begin(), search.path.end(), job); at != search.path.end();
       ++at) {
    text.append(search.jobs[*at].name.view()).append(" -> ");
  }
  text.append(search.jobs[job].name.view());
  text.resize(std::min(text.size(), kMaxCycleText));
  return fail(err, "cycle in 'after': %s", text.c_str());
}

// Recurses as deep as the longest chain of jobs.
int visit(Search& search, std::size_t job, std::span<char> err) {
  search.colours[job] = Colour::OnPath;
  search.path.push_back(job);
  for (const JobName& name : search.jobs[job].after) {
    const std::optional<std::size_t> next = search.index.find(name.view());
    if (!next) continue;
    if (search.colours[*next] == Colour::OnPath) return report_cycle(search, *next, err);
    if (search.colours[*next] == Colour::NotVisited && visit(search, *next, err) != 0) return -1;
  }
  search.colours[job] = Colour::Finished;
  search.path.pop_back();
  return 0;
}

}  // namespace

int parse_after(std::string_view text, std::vector<JobName>& out, std::span<char> err) {
  if (text.size() > kMaxAfterText) return fail(err, "'after' value too long");
  std::vector<JobName> names;
  for (std::string_view item; next_list_item(text, item);) {
    const std::string_view name = trim(item);
    if (name.empty()) return fail(err, "empty job name in 'after'");
    if (names.size() == kMaxAfter) return fail(err, "too many 'after' entries");
    if (!names.emplace_back().set(name)) {
      return fail(err, "job name '%.*s' too long", static_cast<int>(name.size()), name.data());
    }
  }
  if (names.empty()) return fail(err, "empty job name in 'after'");
  out.swap(names);
  return 0;
}

int check_cycles(const Config& config, std::span<char> err) {
  try {
    Search search{config.jobs, JobIndex(config.jobs), {}, {}};
    search.colours.resize(config.jobs.size(), Colour::NotVisited);
    search.path.reserve(config.jobs.size());
    for (std::size_t job = 0; job < config.jobs.size(); ++job) {
      if (search.colours[job] == Colour::NotVisited && visit(search, job, err) != 0) return -1;
    }
    return 0;
  } catch (const std::bad_alloc&) {
    return fail(err, "out of memory");
  }
}

}  // namespace orv
