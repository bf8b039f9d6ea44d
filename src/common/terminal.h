// What standard output is, for programs that print for people.
#ifndef ORV_COMMON_TERMINAL_H_
#define ORV_COMMON_TERMINAL_H_

namespace orv {

// Whether standard output is to be coloured: it is a terminal, and NO_COLOR is unset or empty.
[[nodiscard]] bool color_wanted();

}  // namespace orv

#endif  // ORV_COMMON_TERMINAL_H_
