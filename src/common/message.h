// Messages for people. A function that can fail in a way somebody reads about takes a buffer as its
// last parameter and writes exactly one message into it, on failure only.
#ifndef ORV_COMMON_MESSAGE_H_
#define ORV_COMMON_MESSAGE_H_

#include <span>

namespace orv {

// Writes the one message of a failed call into `err`, cut to its size and always NUL-terminated (an
// empty span takes nothing), and returns -1, so that a failure is one statement.
[[gnu::format(printf, 2, 3)]] int fail(std::span<char> err, const char* format, ...);

// The same for checks that answer with a truth: returns false.
[[gnu::format(printf, 2, 3)]] bool refuse(std::span<char> err, const char* format, ...);

}  // namespace orv

#endif  // ORV_COMMON_MESSAGE_H_
