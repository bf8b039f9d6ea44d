// Where a chunk of a job log may be cut.
#ifndef ORV_API_LOG_CHUNK_H_
#define ORV_API_LOG_CHUNK_H_

#include <cstddef>
#include <string_view>

namespace orv {

// How many bytes of `chunk` to hand out when more of the file follows: all, or without the
// beginning of a UTF-8 sequence at its end. Never 0 for a chunk that is not empty.
[[nodiscard]] std::size_t whole_utf8(std::string_view chunk);

}  // namespace orv

#endif  // ORV_API_LOG_CHUNK_H_
