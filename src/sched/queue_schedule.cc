#include "sched/queue_schedule.h"

#include <algorithm>
#include <span>
#include <unordered_set>

#include "common/log.h"
#include "common/times.h"
#include "sched/queue_file.h"

namespace orv {
namespace {

constexpr std::uint32_t kFnvBasis = 0x811C9DC5;
constexpr std::uint32_t kFnvPrime = 16777619;

class Fnv1a {
 public:
  void add(std::uint8_t byte) { hash_ = (hash_ ^ byte) * kFnvPrime; }
  void add(std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) add(byte);
  }
  [[nodiscard]] std::uint32_t value() const { return hash_ == 0 ? 1 : hash_; }

 private:
  std::uint32_t hash_ = kFnvBasis;
};

QueueRecord new_record(const Job& job, std::int64_t now) {
  QueueRecord record;
  record_set_name(record, job.name.view());
  record.exit_code = -1;
  record.next_run = kNever;
  if (!job.enabled) {
    record_set_state(record, JobState::Disabled);
    return record;
  }
  record.next_run = first_next_run(job, now);
  record.schedule_fingerprint = schedule_fingerprint(job);
  return record;
}

// Carries the job's 'enabled' over to its record; true when that changed it.
bool follow_enabled(QueueRecord& record, const Job& job, std::int64_t now) {
  const bool disabled = record_state(record) == JobState::Disabled;
  if (job.enabled != disabled) return false;
  record_set_state(record, job.enabled ? JobState::Pending : JobState::Disabled);
  if (job.enabled) {
    record.next_run = first_next_run(job, now);
    record.schedule_fingerprint = schedule_fingerprint(job);
  }
  return true;
}

// A job that was run by hand before any daemon saw it has a record without a time to run at, and so
// has one that got its schedule while it was run by hand. It gets its first one: a job that
// silently never runs is the worst that can happen.
bool give_first_run(QueueRecord& record, const Job& job, std::int64_t now) {
  if (record.next_run != kNever || !has_time_ahead(job, now)) return false;
  const std::uint32_t known = record.schedule_fingerprint;
  const std::uint32_t fingerprint = schedule_fingerprint(job);
  if (known == fingerprint) return false;
  record.next_run = first_next_run(job, now);
  if (record.next_run == kNever) return false;
  record.schedule_fingerprint = fingerprint;
  if (known == 0) {
    log_msg(LogLevel::Info, "orv_sched: job '%s' was first run by hand: its next run is at %s",
            job.name.c_str(), local_time_cell(record.next_run).c_str());
  }
  return true;
}

// queue_find() for jobs in the configuration's order, which mostly is that of the records: `place`
// is where the next one is looked for first.
QueueRecord* find_near(QueueState& state, std::string_view name, std::size_t& place) {
  const std::span<QueueRecord> records = state.records();
  if (place >= records.size() || record_name(records[place]) != name) {
    place = state.position_of(name);
  }
  return place < records.size() ? &records[place++] : nullptr;
}

bool drop_removed(QueueState& state, const Config& config, bool quiet) {
  std::unordered_set<std::string_view> configured;
  configured.reserve(config.jobs.size());
  for (const Job& job : config.jobs) configured.insert(job.name.view());
  const auto removed = state.erase_if([&](const QueueRecord& record) {
    const std::string_view name = record_name(record);
    if (configured.contains(name)) return false;
    if (!quiet) {
      log_msg(LogLevel::Info,
              "orv_sched: job '%.*s' removed from config, dropping its queue record",
              static_cast<int>(name.size()), name.data());
    }
    return true;
  });
  return removed != 0;
}

}  // namespace

bool waits_for_retry(const QueueRecord& record) {
  return record_state(record) == JobState::Pending && record.started_at > 0 &&
         record.next_run != kNever;
}

bool held_by_time(const Job& job, const QueueRecord& record, std::int64_t now) {
  if (record.next_run <= now) return false;
  // Without the retry's time, a job that only waits for others would be started over and over while
  // its tool is busy.
  return has_time(job) || (waits_for_retry(record) && record.finished_at <= now);
}

bool dependency_met(const QueueRecord& record, AfterMode mode) {
  const JobState state = record_state(record);
  return state == JobState::Done || (mode == AfterMode::Finished && state == JobState::Failed);
}

std::int64_t first_next_run(const Job& job, std::int64_t now) {
  if (job.has_schedule) {
    const std::int64_t next = cron_next_run(job.schedule, now, false);
    return next < 1 ? kNever : next;
  }
  return job.has_once ? job.once : kNever;
}

std::uint32_t schedule_fingerprint(const Job& job) {
  Fnv1a hash;
  hash.add(job.has_schedule ? 1 : 0);
  if (job.has_schedule) {
    hash.add(job.schedule.minute);
    hash.add(job.schedule.hour);
    hash.add(job.schedule.day_of_month);
    hash.add(job.schedule.month);
    hash.add(job.schedule.day_of_week);
  }
  hash.add(job.has_once ? 1 : 0);
  if (job.has_once) {
    const auto once = static_cast<std::uint64_t>(job.once);
    for (unsigned shift = 0; shift < 64; shift += 8) {
      hash.add(static_cast<std::uint8_t>(once >> shift));
    }
  }
  return hash.value();
}

bool queue_reconcile(QueueState& state, const Config& config, std::int64_t now, bool quiet) {
  bool changed = false;
  std::vector<QueueRecord> added;  // appended at the end, so that lookups stay cheap meanwhile
  std::size_t next = 0;
  for (const Job& job : config.jobs) {
    if (QueueRecord* const record = find_near(state, job.name.view(), next)) {
      changed = follow_enabled(*record, job, now) || changed;
      // The daemon's to give: a view shows what there is.
      if (!quiet) changed = give_first_run(*record, job, now) || changed;
      continue;
    }
    added.push_back(new_record(job, now));
    if (!quiet) {
      log_msg(LogLevel::Info, "orv_sched: new job '%s' added to the queue", job.name.c_str());
    }
  }
  // Every job has its record, and there are no others.
  if (added.empty() && state.records().size() == config.jobs.size()) return changed;
  if (!added.empty()) {
    state.append(added);
    changed = true;
  }
  return drop_removed(state, config, quiet) || changed;
}

ErrorCode queue_sync_with_config(QueueState& state, const Config& config, std::int64_t now) {
  return queue_reconcile(state, config, now, false) ? queue_save(state) : ErrorCode::Ok;
}

ErrorCode queue_drop_far_retries(QueueState& state, const Config& config, std::int64_t now,
                                 std::int64_t busy_retry_s) {
  bool changed = false;
  for (QueueRecord& record : state.records()) {
    if (!waits_for_retry(record) || record.next_run <= now + busy_retry_s) continue;
    const Job* const job = find_job(config, record_name(record));  // hardly ever comes to this
    if (job == nullptr || has_time(*job)) continue;
    record.next_run = kNever;
    changed = true;
  }
  return changed ? queue_save(state) : ErrorCode::Ok;
}

void queue_view_with_config(QueueState& state, const Config& config, std::int64_t now) {
  (void)queue_reconcile(state, config, now, true);
  (void)queue_refresh_schedules(state, config, now);
}

bool queue_refresh_schedules(QueueState& state, const Config& config, std::int64_t now) {
  bool changed = false;
  for (const Job& job : config.jobs) {
    if (!job.enabled || !has_time(job)) continue;
    QueueRecord* const record = queue_find(state, job.name.view());
    if (record == nullptr || record_state(*record) == JobState::Disabled ||
        record_state(*record) == JobState::Running || waits_for_retry(*record)) {
      continue;
    }
    const std::uint32_t fingerprint = schedule_fingerprint(job);
    if (fingerprint == record->schedule_fingerprint) continue;
    // A record that never had a fingerprint keeps the time that was set for it.
    if (record->schedule_fingerprint != 0) record->next_run = first_next_run(job, now);
    record->schedule_fingerprint = fingerprint;
    changed = true;
  }
  return changed;
}

ErrorCode queue_refresh_schedules_and_save(QueueState& state, const Config& config,
                                           std::int64_t now) {
  return queue_refresh_schedules(state, config, now) ? queue_save(state) : ErrorCode::Ok;
}

bool queue_job_due(const QueueState& state, const Job& job, std::int64_t now,
                   std::int64_t& dependency_finish) {
  if (!job.enabled) return false;
  const QueueRecord* const record = queue_find(state, job.name.view());
  if (record == nullptr || record_state(*record) == JobState::Running) return false;
  if (held_by_time(job, *record, now)) return false;
  std::int64_t newest = 0;
  bool first = true;
  for (const JobName& name : job.after) {
    const QueueRecord* const other = queue_find(state, name.view());
    if (other == nullptr || !dependency_met(*other, job.after_mode)) return false;
    newest = first ? std::int64_t{other->finished_at}
                   : std::max(newest, std::int64_t{other->finished_at});
    first = false;
  }
  if (!job.after.empty() && record->after_stamp >= newest) return false;
  dependency_finish = newest;
  return true;
}

}  // namespace orv
