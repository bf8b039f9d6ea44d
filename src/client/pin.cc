#include "client/pin.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "client/connection.h"
#include "client/progress.h"
#include "client/targets.h"
#include "client/token.h"

namespace orv {
namespace {

int complain(int status, const std::string& message) {
  std::fprintf(stderr, "orv_api: %s\n", message.c_str());
  return status;
}

// What is to be added, as the command line says it.
struct Wish {
  Server server;
  std::string token_file;  // as it is written into the list
  std::string list;        // its path
};

// Empty, or what is wrong with the command line.
std::string read_wish(const Arguments& given, Wish& out) {
  if (!parse_server_address(given.word(0), out.server.address)) {
    return "'" + given.word(0) + "' is not <host>[:<port>] or [<IPv6>][:<port>]";
  }
  out.server.name = given.value("--name");
  if (!is_server_name(out.server.name)) {
    return "'--name' must be 1..64 letters, digits, '.', '_' and '-', a letter or digit first";
  }
  if (!given.has("--token-file")) return "'--token-file' is needed";
  out.token_file = given.value("--token-file");
  // The list is read from any directory.
  if (!out.token_file.starts_with("/") && !out.token_file.starts_with("~/")) {
    std::error_code failed;
    out.token_file = std::filesystem::absolute(out.token_file, failed).string();
  }
  std::array<char, kClientMessageSize> err{};
  // Otherwise a token that cannot be read would show only when the listed server is first asked.
  if (read_token_file(expand_home(out.token_file), err) == nullptr) return err.data();
  out.list = server_list_path(given);
  return out.list.empty() ? "there is no home directory to keep the list in: --servers" : "";
}

std::string fetch(const Arguments& given, const ServerAddress& address, Sha256Digest& out) {
  boost::asio::io_context io(1);
  Progress progress(io.get_executor(), ::isatty(STDERR_FILENO) == 1);
  std::string error;
  progress.wait_for("waiting for " + address.text());
  boost::asio::co_spawn(
      io, fetch_fingerprint(address, std::chrono::steady_clock::now() + given.timeout, out),
      [&](const std::exception_ptr& failed, const std::string& why) {
        error = failed ? "out of memory" : why;
        progress.done();
      });
  io.run();
  return error;
}

// A server that is listed already, by its name or by its address. Nothing to say: the answer is 0
// and `known` false.
int check_listed(const Wish& wish, const std::vector<Server>& listed, bool& known) {
  for (const Server& server : listed) {
    const bool same_name = server.name == wish.server.name;
    const bool same_address = server.address == wish.server.address;
    if (same_name && !same_address) {
      return complain(kExitUsage,
                      "[" + server.name + "] is listed already, for " + server.address.text());
    }
    if (!same_name && !same_address) continue;
    if (server.fingerprint != wish.server.fingerprint) {
      std::printf("listed as [%s] with another one:\n  %s\n", server.name.c_str(),
                  fingerprint_text(server.fingerprint).c_str());
      return complain(kExitNotTrusted,
                      "the server shows another certificate than the one listed as [" +
                          server.name + "]; if that is right, change its fingerprint in " +
                          wish.list);
    }
    known = known || same_name;
  }
  return kExitDone;
}

bool answered_yes() {
  std::string answer;
  // The whole word: an answer by habit, or the end of a file, must not pin a stranger.
  return static_cast<bool>(std::getline(std::cin, answer)) && answer == "yes";
}

}  // namespace

int pin_server(const Arguments& given) {
  Wish wish;
  if (const std::string fault = read_wish(given, wish); !fault.empty()) {
    return complain(kExitUsage, fault);
  }
  std::vector<Server> listed;
  std::array<char, kClientMessageSize> err{};
  // Before the question: nobody shall compare a fingerprint that cannot be kept.
  if (read_server_list(wish.list, listed, err) != 0) return complain(kExitUsage, err.data());

  if (const std::string error = fetch(given, wish.server.address, wish.server.fingerprint);
      !error.empty()) {
    return complain(kExitNoConnection, "no answer from the server: " + error);
  }
  const std::string address = wish.server.address.text();
  std::printf("%s has the certificate with the SHA-256 fingerprint\n  %s\n", address.c_str(),
              fingerprint_text(wish.server.fingerprint).c_str());
  bool known = false;
  if (const int status = check_listed(wish, listed, known); status != kExitDone) return status;
  if (known) {
    std::printf("[%s] is listed already, with this fingerprint\n", wish.server.name.c_str());
    return kExitDone;
  }
  std::printf(
      "Compare it with what 'orv_sched api-info' prints on the server.\n"
      "Add the server as [%s]? (yes or no) ",
      wish.server.name.c_str());
  std::fflush(stdout);
  if (!answered_yes()) return complain(kExitRefused, "not added");
  if (add_server(wish.list, wish.server, wish.token_file, err) != 0) {
    return complain(kExitRefused, err.data());
  }
  std::printf("[%s] is added to %s\n", wish.server.name.c_str(), wish.list.c_str());
  return kExitDone;
}

}  // namespace orv
