#include "client/targets.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <set>
#include <string_view>

#include "common/suggestion.h"
#include "common/text.h"

namespace orv {
namespace {

// The option's value, else the variable's, else empty.
std::string option_or_variable(const Arguments& given, const char* option, const char* variable) {
  if (given.has(option)) return given.value(option);
  const char* const value = std::getenv(variable);
  return value != nullptr ? value : "";
}

// The server that options and environment describe. Empty, or what is missing or wrong.
std::string described_target(const Arguments& given, Target& out) {
  const std::string address = option_or_variable(given, "--server", "ORV_API_SERVER");
  if (address.empty())
    return "which server? --server or ORV_API_SERVER, or --on or --all of the list";
  if (!parse_server_address(address, out.address)) {
    return "'" + address + "' is not <host>[:<port>] or [<IPv6>][:<port>]";
  }
  out.name = out.address.text();
  if (!parse_fingerprint(option_or_variable(given, "--fingerprint", "ORV_API_FINGERPRINT"),
                         out.fingerprint)) {
    return "the certificate's SHA-256 fingerprint is needed: --fingerprint or ORV_API_FINGERPRINT "
           "('orv_sched api-info' prints it)";
  }
  const std::string file = option_or_variable(given, "--token-file", "ORV_API_TOKEN_FILE");
  if (!file.empty()) {
    std::array<char, kClientMessageSize> err{};
    out.token = read_token_file(file, err);
    return out.token != nullptr ? "" : err.data();
  }
  // Not an option: other users see a command line.
  const char* const token = std::getenv("ORV_API_TOKEN");
  out.token = parse_token(token != nullptr ? token : "");
  if (out.token != nullptr) return "";
  return "a token <name>.<secret> is needed: --token-file or ORV_API_TOKEN";
}

Target listed_target(const Server& server) {
  Target target{server.name, server.address, server.fingerprint, nullptr, {}};
  std::array<char, kClientMessageSize> err{};
  target.token = read_token_file(server.token_file, err);
  // A fault of this server alone: the others are asked all the same.
  if (target.token == nullptr) target.error = err.data();
  return target;
}

std::string choose_listed(const Arguments& given, Targets& out) {
  const std::string path = server_list_path(given);
  std::vector<Server> listed;
  std::array<char, kClientMessageSize> err{};
  if (read_server_list(path, listed, err) != 0) return err.data();
  if (listed.empty()) return "no servers are listed in " + path + " ('orv_api pin' adds one)";

  std::vector<std::string_view> known;
  known.reserve(listed.size());
  for (const Server& server : listed) known.emplace_back(server.name);
  // A name given twice counts once, and the order is the list's.
  std::set<std::string, std::less<>> wanted;
  const std::string names = given.value("--on");
  std::string_view rest = names, name;
  while (next_list_item(rest, name)) {
    name = trim(name);
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      return "no server '" + std::string(name) + "' is listed in " + path +
             did_you_mean(name, known);
    }
    wanted.emplace(name);
  }
  if (given.has("--on") && wanted.empty()) return "'--on' needs the name of a server";
  for (const Server& server : listed) {
    if (wanted.empty() || wanted.contains(server.name)) {
      out.servers.push_back(listed_target(server));
    }
  }
  // --all has the form of several also while the list has one: a script need not care.
  out.several = wanted.size() != 1;
  return "";
}

}  // namespace

std::string server_list_path(const Arguments& given) {
  return given.has("--servers") ? given.value("--servers") : default_server_list_path();
}

std::string choose_targets(const Arguments& given, bool all_by_default, Targets& out) {
  // A choice from the list wins over the environment; beside an option it contradicts that.
  const bool chosen = given.has("--on") || given.has("--all");
  if (given.has("--on") && given.has("--all")) return "'--on' and '--all' exclude each other";
  for (const char* option : {"--server", "--fingerprint", "--token-file"}) {
    if (chosen && given.has(option)) {
      return "'" + std::string(option) + "' cannot be given with servers of the list";
    }
  }
  const char* const variable = std::getenv("ORV_API_SERVER");
  const bool described = given.has("--server") || (variable != nullptr && *variable != '\0');
  if (chosen || (all_by_default && !described)) return choose_listed(given, out);
  return described_target(given, out.servers.emplace_back());
}

}  // namespace orv
