// The command line of orv_console.
#ifndef ORV_CONSOLE_OPTIONS_H_
#define ORV_CONSOLE_OPTIONS_H_

#include <cstdint>
#include <span>
#include <string>

#include "common/options.h"

namespace orv {

inline constexpr std::uint16_t kConsolePort = 8448;

struct ConsoleOptions {
  std::string address = "127.0.0.1";  // numeric, 127.0.0.0/8 or ::1, without brackets
  std::uint16_t port = kConsolePort;  // 0: any that is free
  std::string servers_path;           // empty: the user's own list
  bool read_only = false;             // no change is passed on, whatever the token allows
  bool open = false;                  // show the page in a browser
};

// Reads all words after the program's name. 0; -1 with the reason, `out` undefined.
[[nodiscard]] int console_options_parse(const ArgList& args, ConsoleOptions& out,
                                        std::span<char> err);

// Reads "ADDRESS:PORT", "[::1]:PORT", "localhost:PORT" or "PORT". 0; -1 with the reason when it is
// malformed or no loopback address.
[[nodiscard]] int console_listen_parse(const char* text, ConsoleOptions& out, std::span<char> err);

extern const char* const kConsoleUsage;  // many lines, with the exit statuses

}  // namespace orv

#endif  // ORV_CONSOLE_OPTIONS_H_
