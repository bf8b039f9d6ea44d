// The queue state file: all that the scheduler remembers of its jobs between runs. It is a bare row
// of 172-byte records, replaced whole by rename. Whoever changes it holds the lock from the read to
// the save; readers that only show it take no lock and never save.
#ifndef ORV_SCHED_QUEUE_FILE_H_
#define ORV_SCHED_QUEUE_FILE_H_

#include <cstddef>

#include "common/scoped_fd.h"
#include "common/status.h"
#include "sched/queue_state.h"

namespace orv {

inline constexpr const char* kDefaultQueuePath = "/var/lib/orv_sched/queue.state";
inline constexpr std::size_t kMaxQueuePath = 1023;  // bytes

// Takes the exclusive lock of the queue at `path` ("<path>.lock"), waiting while another process
// holds it, and creates missing directories. The caller owns the lock: it ends when the descriptor
// closes. On failure the descriptor is empty and the cause was logged.
[[nodiscard]] ScopedFd queue_lock(const char* path);

// Empties `state`, remembers `path` (cut to kMaxQueuePath) and reads its file. A missing file is
// created empty (without clobbering one that another process has just made). IoError and the like,
// also for what is no regular file (errno says what it was); OutOfMemory; Corrupt when the file is
// shorter than its size said.
[[nodiscard]] ErrorCode queue_load(QueueState& state, const char* path);
// The same for a reader that may not create anything: a path that stat() refuses is an empty queue.
[[nodiscard]] ErrorCode queue_load_readonly(QueueState& state, const char* path);

// Replaces the records by what the file holds now. After a failure `state` is as it was. Pointers
// to records are stale afterwards.
[[nodiscard]] ErrorCode queue_reload(QueueState& state);

// Replaces the file whole: temporary file "<path>.tmp", flushed, renamed. After a failure the old
// file is in place, and errno says what an IoError was. Needs the lock.
[[nodiscard]] ErrorCode queue_save(QueueState& state);
// Logs why a save failed, at once after it; nothing for Ok. `remark` ends the line.
void queue_log_unsaved(const QueueState& state, ErrorCode rc, const char* remark = "");

// Replaces the record of the same name, or appends it; then saves.
[[nodiscard]] ErrorCode queue_upsert(QueueState& state, const QueueRecord& record);

}  // namespace orv

#endif  // ORV_SCHED_QUEUE_FILE_H_
