#include "console/options.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string_view>

#include "common/message.h"
#include "common/text.h"

namespace orv {

const char* const kConsoleUsage =
    "usage: orv_console [--listen ADDRESS:PORT] [--servers FILE] [--read-only] [--open]\n\n"
    "Serves one page for all servers of the list, on loopback, to whoever opens the URL that it\n"
    "prints. It runs until it is stopped with Ctrl-C.\n\n"
    "  --listen <address:port>  loopback address and port (127.0.0.1:8448; port 0: any free one)\n"
    "  --servers <file>         list of servers (~/.config/orv/servers)\n"
    "  --read-only              show everything, change nothing\n"
    "  --open                   open the page in the browser (xdg-open)\n"
    "  --version, --help\n\n"
    "Exit status: 0 stopped; 1 failed; 2 wrong usage, or a fault in the list of servers.\n";

namespace {

bool is_loopback(const std::string& address) {
  // inet_pton(3) takes all four figures and nothing else: "127.1" could be read in two ways.
  in_addr v4{};
  if (::inet_pton(AF_INET, address.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  return address == "::1";
}

int store_servers(const char* value, ConsoleOptions& out, std::span<char> err) {
  if (*value == '\0') return fail(err, "--servers needs the name of a file");
  out.servers_path = value;
  return 0;
}

struct OptionReader {
  std::string_view name;
  int (*take)(const char* value, ConsoleOptions& out, std::span<char> err);  // null: a flag
  bool ConsoleOptions::*flag;
};
constexpr OptionReader kReaders[] = {
    {"--listen", console_listen_parse, nullptr},
    {"--servers", store_servers, nullptr},
    {"--read-only", nullptr, &ConsoleOptions::read_only},
    {"--open", nullptr, &ConsoleOptions::open},
};

}  // namespace

int console_listen_parse(const char* text, ConsoleOptions& out, std::span<char> err) {
  const std::string_view value = text;
  const std::size_t colon = value.rfind(':');
  std::string address = out.address;
  std::string_view number = value;
  if (colon != std::string_view::npos) {
    address = value.substr(0, colon);
    number = value.substr(colon + 1);
    const bool bracketed = address.size() > 2 && address.front() == '[' && address.back() == ']';
    if (bracketed) address = address.substr(1, address.size() - 2);
    // Without its brackets, where an IPv6 address ends and the port begins is anybody's guess.
    if (bracketed != (address.find(':') != std::string::npos)) {
      return fail(err, "--listen must be ADDRESS:PORT, [::1]:PORT or PORT, not '%s'", text);
    }
  }
  std::uint32_t port = 0;
  if (!parse_u32(number, port) || port > 65535 || address.empty()) {
    return fail(err, "--listen must be ADDRESS:PORT, [::1]:PORT or PORT, not '%s'", text);
  }
  // Not resolved: a hosts file may say anything.
  if (address == "localhost") address = "127.0.0.1";
  if (!is_loopback(address)) {
    return fail(err, "--listen must be a loopback address (127.0.0.0/8 or [::1]), not '%s'", text);
  }
  out.address = address;
  out.port = static_cast<std::uint16_t>(port);
  return 0;
}

int console_options_parse(const ArgList& args, ConsoleOptions& out, std::span<char> err) {
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string_view word = args[i];
    const OptionReader* found = nullptr;
    for (const OptionReader& row : kReaders) {
      // "--listen=VALUE" as well as two words; a switch takes no value.
      const bool joined = row.take != nullptr && word.starts_with(row.name) &&
                          word.substr(row.name.size()).starts_with('=');
      if (word == row.name || joined) found = &row;
    }
    if (found == nullptr) return fail(err, "unknown argument '%s'", args[i]);
    if (found->take == nullptr) {
      out.*found->flag = true;
      continue;
    }
    const char* value = nullptr;
    if (word.size() > found->name.size()) {
      value = args[i] + found->name.size() + 1;
    } else if (++i < args.size()) {
      value = args[i];
    } else {
      return fail(err, "'%s' needs a value", args[i - 1]);
    }
    if (found->take(value, out, err) != 0) return -1;
  }
  return 0;
}

}  // namespace orv
