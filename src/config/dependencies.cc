#include "config/dependencies.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <string>

#include "common/message.h"
#include "config/job_index.h"

namespace orv {
namespace {

// OnPath: the search is below the job. Finished: no circle leads through it, it is not visited
// again.
enum class Colour : std::uint8_t { NotVisited, OnPath, Finished };

struct Search {
  const std::vector<Job>& jobs;
  JobIndex index;
  std::vector<Colour> colours;
  std::vector<std::size_t> path;  // from the job that the search began with
};

// Words the circle that the path closes at `job`.
bool report_cycle(const Search& search, std::size_t job, std::span<char> err) {
  std::string text;
  for (auto at = std::find(search.path.begin(), search.path.end(), job); at != search.path.end();
       ++at) {
    text.append(search.jobs[*at].name.view()).append(" -> ");
  }
  text.append(search.jobs[job].name.view());
  text.resize(std::min(text.size(), kMaxCycleText));
  return refuse(err, "cycle in 'after': %s", text.c_str());
}

// Colours `job` and all it depends on; false, with the message, at the first circle. Recurses as
// deep as the longest chain of jobs.
bool visit(Search& search, std::size_t job, std::span<char> err) {
  search.colours[job] = Colour::OnPath;
  search.path.push_back(job);
  for (const JobName& name : search.jobs[job].after) {
    const std::optional<std::size_t> next = search.index.find(name.view());
    if (!next) continue;
    if (search.colours[*next] == Colour::OnPath) return report_cycle(search, *next, err);
    if (search.colours[*next] == Colour::NotVisited && !visit(search, *next, err)) return false;
  }
  search.colours[job] = Colour::Finished;
  search.path.pop_back();
  return true;
}

}  // namespace

bool check_cycles(const Config& config, std::span<char> err) {
  try {
    Search search{config.jobs, JobIndex(config.jobs), {}, {}};
    search.colours.resize(config.jobs.size(), Colour::NotVisited);
    search.path.reserve(config.jobs.size());
    for (std::size_t job = 0; job < config.jobs.size(); ++job) {
      if (search.colours[job] == Colour::NotVisited && !visit(search, job, err)) return false;
    }
    return true;
  } catch (const std::bad_alloc&) {
    return refuse(err, "out of memory");
  }
}

}  // namespace orv
