// What the console knows of one server, taken from its replies, and how it is shown to the page.
// Pure: replies go in, one JSON object comes out, and its version says when more than times has
// changed. Texts of a server are kept as they came; the page shows them as text.
#ifndef ORV_CONSOLE_KNOWN_SERVER_H_
#define ORV_CONSOLE_KNOWN_SERVER_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "json/json.h"

namespace orv {

inline constexpr std::size_t kRunsKept = 20;          // newest runs of a job, and besides
inline constexpr std::int64_t kRunsKeptFor = 90'000;  // those that began within these seconds

// What tells one run of a job from the next; 0 where nothing is known.
struct LastRun {
  std::int64_t start = 0;
  std::int64_t finish = 0;
  friend bool operator==(const LastRun&, const LastRun&) = default;
};

// A job as the server's replies show it.
struct KnownJob {
  std::string name;
  std::string json;  // the JOB object, compact and well-formed
  LastRun last;      // as the JOB object says, also of a run under way
  bool running = false;
  std::string runs;   // JSON array, see known_runs_json(); empty: never asked
  LastRun runs_upto;  // `last` when the runs were asked for
};

// The parts of GET info that say what has changed.
struct KnownInfo {
  std::string config_etag;
  std::string running_job;             // empty: none
  std::vector<std::string> run_queue;  // names
  std::int64_t daemon_started = 0;
  friend bool operator==(const KnownInfo&, const KnownInfo&) = default;
};

// One server of the list. What was known stays when the server can no longer be asked.
struct KnownServer {
  std::string name;        // of the list
  bool reachable = false;  // the last attempt met somebody
  bool trusted = false;    // and that was the server: certificate and signature are right
  std::string error;       // empty: none
  std::int64_t asked = 0;  // Unix seconds of the last attempt; 0: not yet
  std::string info_json;   // empty: not known
  KnownInfo info;
  bool jobs_known = false;     // a whole list was taken
  std::vector<KnownJob> jobs;  // in the order of the configuration file
  std::uint64_t version = 1;   // goes up with every change but those of times
  std::string info_timeless;   // info_json without what is different each time
};

// Takes a reply of GET info. False, nothing changed, when it is not of that shape.
[[nodiscard]] bool known_take_info(KnownServer& server, const JsonValue& reply);

// The jobs of one page of GET jobs, appended to `jobs`. False when the page is not of that shape.
struct JobsPage {
  std::string config_etag;
  std::int64_t next_offset = -1;  // -1: the last page
};
[[nodiscard]] bool known_read_page(const JsonValue& reply, std::vector<KnownJob>& jobs,
                                   JobsPage& page);

// Puts a complete list in the place of the present one; runs that are known are kept.
void known_take_jobs(KnownServer& server, std::vector<KnownJob> jobs);

// Takes a reply of GET jobs/NAME; a job that the list does not have is passed over. False when it
// is not of that shape.
[[nodiscard]] bool known_take_job(KnownServer& server, const JsonValue& reply);

// Takes a reply of GET jobs/NAME/runs, which was asked for when the job's last run was `upto`: when
// that is another one by now, the runs are asked for again. False when it is not of that shape.
[[nodiscard]] bool known_take_runs(KnownServer& server, std::string_view job, const LastRun& upto,
                                   const JsonValue& reply, std::int64_t now);

// Records the outcome of an attempt to ask. An empty `error` is none.
void known_take_outcome(KnownServer& server, bool reachable, bool trusted, std::string_view error,
                        std::int64_t now);

// {"name":..,"reachable":..,"trusted":..,"error":..,"asked":..,"read_only":..,"info":..,"jobs":[..],
//  "runs":{JOB:[[START,FINISH or null,OUTCOME],..],..}}
// with info and jobs null when not known, the newest run first, and as OUTCOME one of "done",
// "busy", "failed", "timed out", "cancelled", "unfinished".
[[nodiscard]] std::string known_server_json(const KnownServer& server, bool read_only);

// Null when the list has no such job. Borrowed until the next list is taken.
[[nodiscard]] KnownJob* known_find_job(KnownServer& server, std::string_view name);

}  // namespace orv

#endif  // ORV_CONSOLE_KNOWN_SERVER_H_
