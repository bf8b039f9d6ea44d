// Run files: what is running, written where every scheduler of a queue looks. They are the truth
// about runs: a queue record can be disabled, renamed, overwritten by a forced run or left unsaved
// on a full disk while its job still runs, and it does not know the tool.
//
// A run has one beside the queue, "<queue>.run.<runner pid>", from before the tool is let go until
// the run's outcome is known. It is a symbolic link whose text is
//   <boot>/<runner pid>.<its start>/<tool pid>.<its start>/<job>/<path of the job log>
// with the tool's numbers 0 until it has one. A link is made and replaced in one step, so that no
// reader ever sees half of one, and a short one needs no block of its own, so that it can be made
// on a full disk too (then without job and log). Nothing is flushed: no process outlives a power
// loss.
#ifndef ORV_SCHED_RUN_FILE_H_
#define ORV_SCHED_RUN_FILE_H_

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "sched/process.h"

namespace orv {

// What a run file says.
struct RunNote {
  std::string boot;
  ProcessId runner;
  ProcessId tool;
  std::string job;  // empty when there was no room for it
  std::string log;  // path; likewise
};

enum class RunPhase {
  Running,  // its runner lives
  Lost,     // its runner is gone, its tool is not
  Over,     // both are gone: the file is a leftover
};
[[nodiscard]] RunPhase run_phase(const RunNote& note);

// The runs of other processes that are not over, by the run files of the queue at `queue_path`.
// Files that are no run files are passed over. Changes nothing, needs no lock.
struct OtherRun {
  RunNote note;
  RunPhase phase;
};
struct OtherRuns {
  std::vector<OtherRun> runs;
  // errno of what could not be read (no descriptor, no memory, a broken disk), else 0: there may be
  // runs that are not among these.
  int unread = 0;
};
[[nodiscard]] OtherRuns other_runs(const std::string& queue_path);

// Removes the run files of runs that are over. Needs the queue's lock.
void remove_dead_run_files(const std::string& queue_path);

// The run file of a run of this process, removed at the end of its life. A run that cannot be
// written down is logged as an error and goes on: as with a full queue or log, a backup that is not
// made would be worse than one that another scheduler does not see should this one be killed.
class RunFile {
 public:
  // Writes the run down. Needs the queue's lock.
  RunFile(const std::string& queue_path, std::string_view job, std::string_view log_path);
  ~RunFile();
  RunFile(const RunFile&) = delete;
  RunFile& operator=(const RunFile&) = delete;
  // Adds the tool, before it is let go.
  void add_tool(pid_t tool);

 private:
  void write();

  std::string path_;  // empty when the run could not be written down
  RunNote note_;
};

}  // namespace orv

#endif  // ORV_SCHED_RUN_FILE_H_
