// What the daemon loop and the API share while the daemon runs. The loop owns it; the API is handed
// a reference and runs on the same thread, from inside the loop's servicing of the network process.
#ifndef ORV_SCHED_LIVE_STATE_H_
#define ORV_SCHED_LIVE_STATE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/fixed_text.h"
#include "common/token_text.h"
#include "config/config.h"
#include "config/snapshot.h"
#include "net/supervisor.h"
#include "sched/job_run.h"

namespace orv {

inline constexpr std::size_t kMaxQueuedRuns = 32;
inline constexpr std::size_t kTestMailsKept = 16;

// A run that an API client asked for. First in, first out; the API appends, the loop takes.
struct RunRequest {
  JobName job;
  FixedText<kMaxTokenName> token;
};

enum class TestMailState : std::uint32_t { Pending, Sent, Failed };
struct TestMail {
  std::uint32_t id = 0;  // 0: slot not used yet
  TestMailState state = TestMailState::Pending;
  FixedText<255> error;
};

// The last kTestMailsKept test mails; a new one takes the oldest one's place.
struct TestMailRing {
  std::array<TestMail, kTestMailsKept> mails;
  std::size_t next = 0;
};
void test_mail_add(TestMailRing& ring, std::uint32_t id);
// Records the outcome; ids that are not in the ring are other mails and are ignored.
void test_mail_result(TestMailRing& ring, std::uint32_t id, std::uint32_t status,
                      std::string_view error);
[[nodiscard]] const TestMail* test_mail_find(const TestMailRing& ring, std::uint32_t id);

struct LiveState {
  std::string config_path;
  std::string queue_path;
  std::string job_log_dir;  // the one the daemon runs with
  // As the daemon has loaded it; never null once it runs.
  std::shared_ptr<const Config> config;
  // As the file was read or written last, kept while the API is on so that each text is parsed
  // once, by whoever meets it first. Null: nothing is kept.
  SnapshotPtr snapshot;
  std::int64_t daemon_started = 0;    // Unix seconds
  CancelSlot running;                 // the job that runs now
  std::vector<RunRequest> run_queue;  // at most kMaxQueuedRuns
  bool config_changed = false;  // set by the API: reload without looking at the file's identity
  TestMailRing test_mails;
  NetSupervisor net;
};

}  // namespace orv

#endif  // ORV_SCHED_LIVE_STATE_H_
