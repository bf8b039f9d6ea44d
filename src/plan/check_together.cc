// Findings about how jobs act together: chains, and days that are too full.
#include <algorithm>
#include <array>
#include <map>

#include "plan/check.h"
#include "plan/describe.h"
#include "plan/nominal.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

constexpr std::int64_t kDay = 86400;
constexpr std::size_t kDays = 7;  // ahead that are checked for too much

// Why a job can never run; empty when it can. Each job is worked out once.
class NeverRuns {
 public:
  explicit NeverRuns(const Plan& plan) : plan_(plan) {}

  const std::string& reason(const Job& job) {
    const auto [at, added] = known_.try_emplace(&job);
    if (added) {
      const std::string text = find(job);  // the map may grow meanwhile
      known_[&job] = text;
    }
    return known_[&job];
  }

 private:
  std::string find(const Job& job) {
    if (!job.enabled) return "is disabled";
    if (job.has_schedule && cron_next_run(job.schedule, plan_.now, false) < 1) {
      return "has a schedule that never fires";
    }
    for (const JobName& name : job.after) {
      const Job* const other = find_job(plan_.config, name.view());
      if (other != nullptr && !reason(*other).empty()) return "can never run";
    }
    return {};
  }

  const Plan& plan_;
  std::map<const Job*, std::string> known_;
};

void check_dependencies(const Plan& plan, std::vector<Finding>& out) {
  NeverRuns never(plan);
  for (const Job& job : plan.config.jobs) {
    if (!job.enabled) continue;
    for (const JobName& name : job.after) {
      const Job* const other = find_job(plan.config, name.view());
      if (other == nullptr || never.reason(*other).empty()) continue;
      out.push_back({"can-never-run", std::string(job.name.view()),
                     "it can never run: it waits for job '" + printable(name.view()) + "', which " +
                         never.reason(*other)});
      break;
    }
  }
}

// A job that waits for several others runs after each of them that ends anew while the rest still
// count as done from an earlier time.
void check_repeated_chains(const Plan& plan, const Forecast& forecast, std::vector<Finding>& out) {
  std::map<const Job*, std::vector<const PlannedRun*>> runs;
  for (const PlannedRun& run : forecast.runs) runs[run.job].push_back(&run);
  for (const Job& job : plan.config.jobs) {
    if (!job.enabled || job.after.size() < 2 || has_time(job)) continue;
    std::size_t most = 0;
    std::int64_t first_end = kNever;
    for (const JobName& name : job.after) {
      const std::vector<const PlannedRun*>& theirs = runs[find_job(plan.config, name.view())];
      most = std::max(most, theirs.size());
      if (!theirs.empty()) first_end = std::min(first_end, theirs.front()->end);
    }
    // A run that is due already answers an end of the past.
    const auto count = static_cast<std::size_t>(
        std::count_if(runs[&job].begin(), runs[&job].end(),
                      [&](const PlannedRun* run) { return run->start >= first_end; }));
    if (count <= most) continue;
    out.push_back(
        {"runs-several-times", std::string(job.name.view()),
         "it runs after each of the jobs that it waits for, not once after all of them: " +
             std::to_string(count) + " times in the next 7 days"});
  }
}

// How often each job starts in each of the next days, when nothing delays it: by its schedule, else
// as often as what it waits for.
class Demand {
 public:
  using Counts = std::array<std::int64_t, kDays>;

  Demand(const Plan& plan, const Durations& durations) : plan_(plan), durations_(durations) {}

  // Seconds of the jobs whose usual duration is known, for each day.
  Counts seconds() {
    Counts sum{};
    for (const Job& job : plan_.config.jobs) {
      const auto known = durations_.find(job.name.view());
      if (!job.enabled || known == durations_.end()) continue;
      const Counts& starts = of(job);
      // A job that takes longer than its interval is started as often as it fits, no more.
      for (std::size_t i = 0; i < kDays; ++i) sum[i] += std::min(starts[i] * known->second, kDay);
    }
    return sum;
  }

 private:
  const Counts& of(const Job& job) {
    if (const auto known = known_.find(&job); known != known_.end()) return known->second;
    Counts counts{};
    if (job.enabled && job.has_schedule) {
      constexpr std::size_t kMost = kDays * 1440;
      for (const std::int64_t time : next_matches(job.schedule, plan_.now, kMost)) {
        const auto day = static_cast<std::size_t>((time - plan_.now) / kDay);
        if (day >= kDays) break;
        ++counts[day];
      }
    } else if (job.enabled && !job.has_once) {
      for (const JobName& name : job.after) {
        const Job* const other = find_job(plan_.config, name.view());
        if (other == nullptr) continue;
        const Counts& theirs = of(*other);
        for (std::size_t i = 0; i < kDays; ++i) counts[i] = std::max(counts[i], theirs[i]);
      }
    }
    return known_.emplace(&job, counts).first->second;
  }

  const Plan& plan_;
  const Durations& durations_;
  std::map<const Job*, Counts> known_;
};

void check_overbooked(const Plan& plan, const Durations& durations, std::vector<Finding>& out) {
  const Demand::Counts seconds = Demand(plan, durations).seconds();
  const auto over =
      std::count_if(seconds.begin(), seconds.end(), [](std::int64_t sum) { return sum > kDay; });
  if (over == 0) return;
  const auto first =
      std::find_if(seconds.begin(), seconds.end(), [](std::int64_t sum) { return sum > kDay; });
  out.push_back({"overbooked", "",
                 std::to_string(over) + " of the next 7 days are overbooked: from " +
                     clock_text(plan.now + (first - seconds.begin()) * kDay) +
                     " on, the runs of 24 hours take " + duration_text(*first)});
}

}  // namespace

// Chains are judged by a forecast: the scheduler's own rules say how often they run.
std::vector<Finding> check_together(const Plan& plan, const Durations& durations) {
  std::vector<Finding> out;
  check_dependencies(plan, out);
  ForecastStart start;
  start.now = plan.now;
  start.horizon = plan.now + static_cast<std::int64_t>(kDays) * kDay;
  check_repeated_chains(plan, make_forecast(plan.config, plan.queue, durations, start), out);
  check_overbooked(plan, durations, out);
  return out;
}

}  // namespace orv
