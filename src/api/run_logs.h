// The job logs as API clients see them: each is a run, named by its start in UTC.
#ifndef ORV_API_RUN_LOGS_H_
#define ORV_API_RUN_LOGS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/scoped_fd.h"

namespace orv {

inline constexpr std::size_t kRunIdLength = 16;  // 20261005T140000Z

[[nodiscard]] bool is_run_id(std::string_view text);
// Unix seconds of the start that a run id names; fields out of range are carried over.
[[nodiscard]] std::int64_t run_start(std::string_view run_id);

// An open job log and what its status said at that moment.
struct RunLog {
  ScopedFd file;
  std::int64_t size = 0;  // bytes
};
// Opens "<directory>/<run id>.log" when that is a regular file, no link. Blocks on nothing.
[[nodiscard]] bool open_run_log(const std::string& directory, std::string_view run_id, RunLog& out);

// The run ids that the names in the directory give, newest first, whatever the entries are. None
// when the directory cannot be read.
[[nodiscard]] std::vector<std::string> list_run_ids(const std::string& directory);

// How many bytes of `chunk` to hand out when more of the file follows: all, or without the
// beginning of a UTF-8 sequence at its end. Never 0 for a chunk that is not empty.
[[nodiscard]] std::size_t whole_utf8(std::string_view chunk);

}  // namespace orv

#endif  // ORV_API_RUN_LOGS_H_
