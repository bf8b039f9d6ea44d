// Run files: what is running, written where every scheduler of a queue looks. They are the truth
// about runs: a queue record can be disabled, renamed, overwritten by a forced run or left unsaved
// on a full disk while its job still runs, and it does not know the tool.
//
// A run has one beside the queue, from before the tool is let go until the run's outcome is known:
// a symbolic link with the name
//   <queue>.run.<runner pid>
// and the text
//   <boot>/<runner pid>.<its start>/<job>/<path of the job log>
// Once there is a tool, the link has a second name (link(2)), which says what goes on should the
// runner die:
//   <queue>.run.<runner pid>.<tool pid>.<tool's start>
// A name is added or removed in one step, so that no reader ever sees half of a link or none, and a
// short link needs no block of its own, so that it can be made on a full disk too (then without job
// and log). Nothing is flushed: no process outlives a power loss.
#ifndef ORV_SCHED_RUN_FILE_H_
#define ORV_SCHED_RUN_FILE_H_

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "sched/process.h"

namespace orv {

// What a run file says, under one of its names.
struct RunNote {
  std::string boot;
  ProcessId runner;
  ProcessId tool;   // 0 under the first name
  std::string job;  // empty when there was no room for it
  std::string log;  // path; likewise
};

enum class RunPhase {
  Running,  // its runner lives, and its tool, if the name tells one
  Lost,     // its runner is gone, its tool is not
  Over,     // else: the name is a leftover, or another one says more
};
[[nodiscard]] RunPhase run_phase(const RunNote& note);

// The runs of other processes that are not over, by the run files of the queue at `queue_path`; one
// may stand there under both names. Files that are no run files are passed over. Changes nothing,
// needs no lock.
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

// Removes the names that are over. Needs the queue's lock.
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
  // Makes the link `path`, in the place of a leftover of that name; false, errno kept, on failure.
  [[nodiscard]] bool make(const std::string& path) const;

  std::string path_;
  std::string tool_path_;  // the second name, empty while there is no tool
  RunNote note_;
};

}  // namespace orv

#endif  // ORV_SCHED_RUN_FILE_H_
