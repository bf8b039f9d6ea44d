// What to ask a server next, and when. Pure: the clock is a parameter. One request at a time, on
// average under half a request a second:
// - GET info every 5 seconds; it says whether anything has changed;
// - all jobs when the configuration changed, when the daemon was started anew, and every 30
// seconds;
// - single jobs when they began, ended, or were asked to run;
// - the runs of a job when its last run is another one, the newest first;
// - a server that gives no answer, after a pause that grows to a minute.
#ifndef ORV_CONSOLE_POLL_PLAN_H_
#define ORV_CONSOLE_POLL_PLAN_H_

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/connection.h"
#include "console/known_server.h"

namespace orv {

inline constexpr std::int64_t kInfoEveryMs = 5'000;
inline constexpr std::int64_t kJobsEveryMs = 30'000;
inline constexpr std::int64_t kLongestPauseMs = 60'000;
inline constexpr double kAsksPerSecond = 0.45;  // sustained, all kinds together
inline constexpr double kAsksAtOnce = 6;        // what may go ahead of that

// One request, for the driver to send and to bring back with its answer.
enum class AskKind { Info, Page, Job, Runs };
struct Ask {
  AskKind kind = AskKind::Info;
  std::string path;  // "/api/v1/..."
  std::string query;
  std::string job;  // of Job and Runs
  LastRun upto;     // of Runs
};

// A walk through the pages of GET jobs. Its jobs replace the known ones when it is complete.
struct JobsSweep {
  std::vector<KnownJob> jobs;
  std::string config_etag;  // of all pages so far
  std::int64_t offset = 0;  // of the next one
  int restarts = 0;         // because the tag changed on the way
};

// The plan of one server. Its driver calls next(), sends what it gives, calls answered(), and
// sleeps until next_at_ms() when there is nothing to ask.
class PollPlan {
 public:
  explicit PollPlan(std::string name) { known_.name = std::move(name); }

  // What to ask at `now_ms` (a steady clock); nothing: not before next_at_ms().
  [[nodiscard]] std::optional<Ask> next(std::int64_t now_ms);
  [[nodiscard]] std::int64_t next_at_ms(std::int64_t now_ms) const;

  // Takes the answer to what next() gave. `now` is Unix seconds.
  void answered(const Ask& ask, const ClientReply& answer, std::int64_t now_ms, std::int64_t now);

  // Takes a reason why the server cannot be asked at all, as a token file that is too open.
  void cannot_ask(std::string_view reason, std::int64_t now_ms, std::int64_t now);

  // The page changed something on this server: look at once.
  void hurry(std::int64_t now_ms);

  [[nodiscard]] const KnownServer& known() const { return known_; }

 private:
  [[nodiscard]] bool wants_jobs(std::int64_t now_ms) const;
  [[nodiscard]] const KnownJob* wants_runs() const;
  void refill(std::int64_t now_ms);
  Ask ask_page();
  // What each kind of reply changes in what is known, and in what is to be asked next.
  void take_info(const JsonValue& reply);
  void take_page(const JsonValue& reply, std::int64_t now_ms);
  void take_reply(const Ask& ask, const JsonValue& reply, std::int64_t now_ms, std::int64_t now);
  void take_refusal(const Ask& ask, const ClientReply& answer, const JsonValue* reply,
                    std::int64_t now_ms, std::int64_t now);
  void end_sweep(std::int64_t now_ms);
  void pause(std::int64_t now_ms, std::int64_t at_least_ms = 0);

  KnownServer known_;
  std::int64_t info_due_ms_ = 0;
  std::int64_t jobs_due_ms_ = 0;
  std::int64_t pause_ms_ = 0;  // 0: the last attempt was answered
  std::optional<JobsSweep> sweep_;
  std::int64_t page_size_ = 50;     // halved when a reply would be too large
  std::string jobs_error_;          // why the last page was refused, until one is taken
  std::set<std::string> changed_;   // jobs to look at again
  double allowance_ = kAsksAtOnce;  // requests that may be sent now; below 0 after an early info
  std::int64_t refilled_ms_ = 0;    // when the allowance was last worked out
};

}  // namespace orv

#endif  // ORV_CONSOLE_POLL_PLAN_H_
