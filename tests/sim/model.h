// What must hold in every history, kept apart from the scheduler's code on purpose: its own reading
// of the configuration and of the queue file, its own search for nominal times, and a few sets. It
// believes what it sees from outside: tools that start and end, lines that are logged, mails that
// are handed over, files on the disk.
#ifndef ORV_TESTS_SIM_MODEL_H_
#define ORV_TESTS_SIM_MODEL_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/world.h"

namespace orv::sim {

struct JobPlan {
  std::string name;
  std::string schedule = {};
  std::vector<std::string> after = {};
  std::int64_t once = 0;  // Unix seconds; 0: none
  bool finished = false;  // the mode of 'after'
  bool enabled = true;
  std::uint32_t timeout_s = 0;  // 0: not set
  std::int64_t serial = 0;      // of the newest change through the API
};

// The jobs of a configuration text, read as plainly as it can be done.
[[nodiscard]] std::vector<JobPlan> read_config(std::string_view text);

// The times in a queue file at which its jobs run next.
[[nodiscard]] std::vector<std::int64_t> next_runs(std::string_view queue);

struct Start {
  std::string job;
  std::int64_t at = 0;  // Unix seconds
};

class Model {
 public:
  // `poll_s`: the daemon's poll interval; `verbose` prints the story.
  void attach(World& world, std::int64_t poll_s, bool verbose);

  // What the world reports.
  void tool_started(const Tool& tool);
  void tool_ended(const Tool& tool);
  void logged(const Process& process, std::string_view line);
  void process_ended(const Process& process, bool killed);
  void mail_handed_over(const Process& process, std::string_view subject);
  // What the history reports.
  void requested(const std::string& job) { ++requests_[job]; }
  void change_told(const std::string& job, std::int64_t serial) { told_serials_[job] = serial; }
  void people_edited() { told_serials_.clear(); }
  void clock_set(std::int64_t seconds);
  void rebooted(bool power_lost);
  // From now until its end, writing may fail: what was reported may be missing on the disk.
  void trouble() { ++troubles_; }
  void trouble_ends() { --troubles_; }
  void calm() { troubles_ = 0; }

  // Whether everything that was due has run; to be asked when nothing runs.
  void check_nothing_waits();
  void check_files();
  void story(const std::string& line) const;
  void fail(const std::string& what);

  // The first thing that did not hold; empty while all is well.
  std::string failure;
  std::uint64_t runs = 0;
  std::vector<Start> starts;

 private:
  struct Record {
    int state = 0;
    int runner = 0;  // pid
    std::int64_t next_run = 0;
    std::int64_t finished = 0;
    std::int64_t after_stamp = 0;
  };
  struct Track {
    std::string schedule;
    std::int64_t once = 0;
    bool once_ran = false;
    std::int64_t next = 0;     // the first nominal time that is not done with
    std::int64_t wanted = 0;   // the first of them that the wall clock shows but once
    bool loose = true;         // the clock was put back: its next time is not known from outside
    bool interrupted = false;  // the outcome of its last run was not kept
    bool busy = false;
    bool unlogged = false;      // its run began when nothing could be written
    bool requested = false;     // what runs now was asked for by a client
    std::int64_t consumed = 0;  // the newest dependency finish that a run was made for
    std::int64_t about_to_consume = 0;
  };
  static std::map<std::string, Record> read_queue(std::string_view bytes);
  void adopt(std::string_view text);
  void cover(Track& track) const;
  void check_cause(const Tool& tool, const JobPlan& job);
  void check_waiting(const JobPlan& job, const Record& record);
  void finished(const Process& process, const std::string& job, const std::string& result);
  void settle(const Process& process);
  void loosen_all();
  [[nodiscard]] bool troubled() const { return troubles_ > 0; }
  [[nodiscard]] const JobPlan* job_of(const std::string& name) const;
  // The newest end of what the job waits for, when all of that is as it must be.
  [[nodiscard]] std::optional<std::int64_t> dependency_stamp(const JobPlan& job) const;

  World* world_ = nullptr;
  std::int64_t poll_s_ = 30;
  bool verbose_ = false;
  int troubles_ = 0;
  std::vector<JobPlan> jobs_;  // in force
  std::map<std::string, Track> tracks_;
  std::map<std::string, int> requests_;
  std::map<std::string, std::int64_t> told_serials_;
  std::map<int, std::string> mail_owed_;  // by runner: the job whose end it must report
};

}  // namespace orv::sim

#endif  // ORV_TESTS_SIM_MODEL_H_
