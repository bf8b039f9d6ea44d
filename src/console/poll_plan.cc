#include "console/poll_plan.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>
#include <utility>

namespace orv {
namespace {

constexpr std::size_t kMaxJobs = 4096;  // no server has that many: what goes on longer is a fault
constexpr int kSweepRestarts = 3;
constexpr JsonLimits kReplyLimits{.max_bytes = 65536, .max_depth = 8, .max_values = 20000};

// "401 unauthorized: unknown token" of an error reply.
std::string refusal_text(int status, const JsonValue* reply) {
  const JsonValue* error = json_member(reply, "error");
  const auto code = json_string(json_member(error, "code"));
  const auto message = json_string(json_member(error, "message"));
  std::string text = std::to_string(status);
  if (code) text.append(" ").append(*code);
  if (message) text.append(": ").append(*message);
  return text;
}

}  // namespace

void PollPlan::refill(std::int64_t now_ms) {
  const double elapsed_s = static_cast<double>(now_ms - refilled_ms_) / 1000;
  allowance_ = std::min(kAsksAtOnce, allowance_ + elapsed_s * kAsksPerSecond);
  refilled_ms_ = now_ms;
}

bool PollPlan::wants_jobs(std::int64_t now_ms) const {
  return sweep_ || !changed_.empty() || now_ms >= jobs_due_ms_;
}

// The newest first: they are what the page shows of the last 24 hours. A job that runs has no new
// one yet, but when nothing is known of it, how long it usually takes is just what is wanted.
const KnownJob* PollPlan::wants_runs() const {
  const KnownJob* newest = nullptr;
  for (const KnownJob& job : known_.jobs) {
    if (job.last.start == 0 || job.runs_upto == job.last) continue;
    if (job.running && !job.runs.empty()) continue;
    if (newest == nullptr || job.last.start > newest->last.start) newest = &job;
  }
  return newest;
}

std::optional<Ask> PollPlan::next(std::int64_t now_ms) {
  refill(now_ms);
  Ask ask;
  // Asked whatever is left of the allowance: it says whether anything else need be asked. What it
  // overdraws, the other kinds wait for.
  if (now_ms >= info_due_ms_) {
    --allowance_;
    ask.path = "/api/v1/info";
    return ask;
  }
  if (pause_ms_ > 0 || known_.info_json.empty() || allowance_ < 1) return std::nullopt;
  // Where one page holds all jobs, it is as cheap as a single one.
  if (!sweep_ && !changed_.empty() && known_.jobs.size() > static_cast<std::size_t>(page_size_)) {
    ask.kind = AskKind::Job;
    ask.job = *changed_.begin();
    changed_.erase(changed_.begin());
    ask.path = "/api/v1/jobs/" + path_segment(ask.job);
  } else if (wants_jobs(now_ms)) {
    ask = ask_page();
  } else if (const KnownJob* job = wants_runs(); job != nullptr) {
    ask.kind = AskKind::Runs;
    ask.job = job->name;
    ask.upto = job->last;
    ask.path = "/api/v1/jobs/" + path_segment(job->name) + "/runs";
  } else {
    return std::nullopt;
  }
  --allowance_;
  return ask;
}

Ask PollPlan::ask_page() {
  // The list brings every job anew: none needs to be asked for by itself.
  if (!sweep_) {
    sweep_.emplace();
    changed_.clear();
  }
  Ask ask;
  ask.kind = AskKind::Page;
  ask.path = "/api/v1/jobs";
  ask.query = "offset=" + std::to_string(sweep_->offset) + "&limit=" + std::to_string(page_size_);
  return ask;
}

std::int64_t PollPlan::next_at_ms(std::int64_t now_ms) const {
  if (pause_ms_ > 0 || known_.info_json.empty()) return info_due_ms_;
  std::int64_t work_ms = wants_jobs(now_ms) || wants_runs() != nullptr ? now_ms : jobs_due_ms_;
  const double short_of = 1 - allowance_;
  if (short_of > 0) {
    const auto wait_ms = static_cast<std::int64_t>(short_of / kAsksPerSecond * 1000) + 1;
    work_ms = std::max(work_ms, refilled_ms_ + wait_ms);
  }
  return std::min(info_due_ms_, work_ms);
}

void PollPlan::hurry(std::int64_t now_ms) {
  if (pause_ms_ == 0) info_due_ms_ = std::min(info_due_ms_, now_ms);
}

void PollPlan::take_info(const JsonValue& reply) {
  const KnownInfo before = known_.info;
  const bool first = known_.info_json.empty();
  if (!known_take_info(known_, reply) || first) return;
  const KnownInfo& after = known_.info;
  // Any job may be another one now.
  if (after.config_etag != before.config_etag || after.daemon_started != before.daemon_started) {
    jobs_due_ms_ = 0;
    return;
  }
  const auto note = [this](const std::string& name) {
    if (!name.empty()) changed_.insert(name);
  };
  if (after.running_job != before.running_job) {
    // Both ends of the change: the one has an outcome, the other a start.
    note(before.running_job);
    note(after.running_job);
  }
  if (after.run_queue == before.run_queue) return;
  // Also a run that was started and ended between two looks was in the queue before.
  for (const std::string& name : before.run_queue) note(name);
  for (const std::string& name : after.run_queue) note(name);
}

void PollPlan::end_sweep(std::int64_t now_ms) {
  sweep_.reset();
  jobs_due_ms_ = now_ms + kJobsEveryMs;
}

void PollPlan::take_page(const JsonValue& reply, std::int64_t now_ms) {
  if (!sweep_) return;
  JobsPage page;
  const std::int64_t offset = sweep_->offset;
  if (!known_read_page(reply, sweep_->jobs, page)) return end_sweep(now_ms);
  // The configuration changed between two pages: what was collected is of two minds.
  if (offset > 0 && page.config_etag != sweep_->config_etag) {
    const int restarts = sweep_->restarts + 1;
    if (restarts > kSweepRestarts) return end_sweep(now_ms);
    sweep_.emplace();
    sweep_->restarts = restarts;
    return;
  }
  sweep_->config_etag = page.config_etag;
  // Forwards only, and not for ever, whatever the server says.
  if (page.next_offset > offset && sweep_->jobs.size() < kMaxJobs) {
    sweep_->offset = page.next_offset;
    return;
  }
  known_take_jobs(known_, std::move(sweep_->jobs));
  end_sweep(now_ms);
}

void PollPlan::take_reply(const Ask& ask, const JsonValue& reply, std::int64_t now_ms,
                          std::int64_t now) {
  switch (ask.kind) {
    case AskKind::Info: return take_info(reply);
    case AskKind::Page: return take_page(reply, now_ms);
    case AskKind::Job: (void)known_take_job(known_, reply); return;  // the next sweep has it anew
    case AskKind::Runs:
      if (known_take_runs(known_, ask.job, ask.upto, reply, now)) return;
      break;
  }
  if (KnownJob* job = known_find_job(known_, ask.job); job != nullptr) job->runs_upto = ask.upto;
}

void PollPlan::pause(std::int64_t now_ms, std::int64_t at_least_ms) {
  // Doubled: 5, 10, 20, 40, then 60 seconds.
  pause_ms_ = std::clamp(pause_ms_ * 2, kInfoEveryMs, kLongestPauseMs);
  info_due_ms_ = now_ms + std::max(pause_ms_, at_least_ms);
  sweep_.reset();
}

void PollPlan::cannot_ask(std::string_view reason, std::int64_t now_ms, std::int64_t now) {
  known_take_outcome(known_, false, false, reason, now);
  pause(now_ms);
}

void PollPlan::take_refusal(const Ask& ask, const ClientReply& answer, const JsonValue* reply,
                            std::int64_t now_ms, std::int64_t now) {
  if (ask.kind == AskKind::Runs || ask.kind == AskKind::Job) {
    // The job may have gone in the meantime: that is no fault, and asking again would not help.
    if (KnownJob* job = known_find_job(known_, ask.job); job != nullptr) job->runs_upto = ask.upto;
    return;
  }
  const auto code = json_string(json_member(json_member(reply, "error"), "code"));
  if (ask.kind == AskKind::Page && code == "internal" && page_size_ > 1) {
    page_size_ /= 2;  // "response too large": settings may be very long
    sweep_.reset();
    return;
  }
  const std::string refusal = refusal_text(answer.status, reply);
  known_take_outcome(known_, true, true, refusal, now);
  // A server that refuses its most plain request refuses all; it may say for how long.
  if (ask.kind == AskKind::Info) return pause(now_ms, std::int64_t{answer.retry_after_s} * 1000);
  jobs_error_ = refusal;
  end_sweep(now_ms);
}

void PollPlan::answered(const Ask& ask, const ClientReply& answer, std::int64_t now_ms,
                        std::int64_t now) {
  // From the answer on, so that a slow server is not asked without a break.
  if (ask.kind == AskKind::Info) info_due_ms_ = now_ms + kInfoEveryMs;
  if (answer.kind != ReplyKind::Signed && answer.kind != ReplyKind::Unsigned) {
    const bool reached = answer.kind == ReplyKind::NotTrusted;
    known_take_outcome(known_, reached, false, answer.error, now);
    return pause(now_ms);
  }
  std::unique_ptr<JsonValue> reply;
  std::array<char, 160> reason{};
  const bool is_json = json_parse(answer.body, kReplyLimits, reply, reason) == 0;
  // What is not signed is never data, whatever its status says.
  if (answer.status >= 300 || answer.kind == ReplyKind::Unsigned) {
    return take_refusal(ask, answer, is_json ? reply.get() : nullptr, now_ms, now);
  }
  if (!is_json) {
    known_take_outcome(known_, true, true, std::string("the answer is no JSON: ") + reason.data(),
                       now);
    return pause(now_ms);
  }
  pause_ms_ = 0;
  // A list that was refused stays said until one is taken, whatever else is answered meanwhile.
  if (ask.kind == AskKind::Page) jobs_error_.clear();
  known_take_outcome(known_, true, true, jobs_error_, now);
  take_reply(ask, *reply, now_ms, now);
}

}  // namespace orv
