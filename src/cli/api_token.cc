#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "api/leftovers.h"
#include "api/tokens.h"
#include "cli/commands.h"
#include "cli/console.h"
#include "cli/usage.h"
#include "common/files.h"
#include "common/options.h"
#include "common/secret.h"
#include "common/suggestion.h"
#include "common/times.h"

namespace orv {
namespace {

constexpr std::size_t kMessageSize = 2048;

struct TokenFile {
  std::string path;
  ScopedFd lock;  // held by a command that changes the file
  TokenStore store;
};

int save(const TokenFile& file) {
  char err[kMessageSize];
  return write_tokens(file.path.c_str(), file.store, err) == 0 ? kExitOk : complain("%s", err);
}

int list_tokens(const TokenFile& file) {
  std::printf("%-32s %-6s %s\n", "NAME", "ROLE", "CREATED");
  for (const std::unique_ptr<ApiToken>& token : file.store.tokens) {
    std::printf("%-32s %-6s %s\n", token->name.c_str(), role_name(token->role),
                local_time_cell(token->created).c_str());
  }
  return kExitOk;
}

int remove_token(TokenFile& file, const char* name) {
  const ApiToken* token = find_token(file.store, name);
  if (token == nullptr) return complain("no token named '%s'", name);
  std::erase_if(file.store.tokens, [&](const auto& entry) { return entry.get() == token; });
  if (const int status = save(file); status != kExitOk) return status;
  std::printf("removed token '%s'\n", name);
  return kExitOk;
}

// Bypasses stdout's buffer, which is never wiped.
bool print_secret(const ApiToken& token) {
  char line[256];
  const ScopedWipe wipe(line, sizeof line);
  const int length =
      std::snprintf(line, sizeof line, "token (shown only now, keep it secret): %s.%s\n",
                    token.name.c_str(), token.secret.c_str());
  return std::fflush(stdout) == 0 &&
         write_all(STDOUT_FILENO, {line, static_cast<std::size_t>(length)}) == ErrorCode::Ok;
}

int add_token(TokenFile& file, const char* name, const char* role, std::int64_t now) {
  auto token = std::make_unique<ApiToken>();
  if (role == nullptr || !parse_role(role, token->role))
    return complain("--role read|admin is required");
  if (find_token(file.store, name) != nullptr)
    return complain("a token named '%s' exists already", name);
  if (file.store.tokens.size() >= kMaxTokens) return complain("too many tokens");
  token->created = now;
  if (!token->name.set(name) || new_token_secret(token->secret) != 0)
    return complain("no random numbers");
  // Saved before it is shown: a token that somebody has must be one that is known.
  file.store.tokens.push_back(std::move(token));
  if (const int status = save(file); status != kExitOk) return status;
  const ApiToken& added = *file.store.tokens.back();
  if (!print_secret(added))
    return complain("the token cannot be shown: remove '%s' and add it again", name);
  std::printf("role: %s%s\n", role,
              added.role == TokenRole::Admin
                  ? " (the client must sign its requests, see sched-api.txt)"
                  : "");
  return kExitOk;
}

int load_tokens(const CommandContext& context, bool changes, TokenFile& out) {
  const std::unique_ptr<Config> config = load_config(context);
  if (!config) return kExitFailed;
  out.path = config->api.tokens_file.view();
  char err[kMessageSize];
  if (changes) {
    remove_tokens_leftovers(out.path);
    out.lock = lock_tokens(out.path.c_str(), err);
    if (!out.lock.valid()) return complain("%s", err);
  }
  if (read_tokens(out.path.c_str(), out.store, err) != TokensRead::Ok) return complain("%s", err);
  return kExitOk;
}

// The word at `index` of the command line as it stands: the scanner is not asked, so that an option
// is never taken for a name further on.
std::string_view word_at(const CommandContext& context, std::size_t index) {
  return index < context.args.size() ? context.args[index] : std::string_view();
}

int run_token_command(const CommandContext& context) {
  const std::string_view action = word_at(context, 2);
  const bool changes = action == "add" || action == "remove";
  // The file comes before the words: one that cannot be read is reported whatever was asked for.
  TokenFile file;
  if (const int status = load_tokens(context, changes, file); status != kExitOk) return status;
  if (action == "list") return list_tokens(file);
  constexpr std::array<std::string_view, 3> kActions = {"list", "add", "remove"};
  if (action.empty()) return usage_error("'api-token' needs 'add', 'list' or 'remove'");
  if (!changes) {
    return usage_error("unknown api-token command '" + std::string(action) + "'" +
                       did_you_mean(action, kActions));
  }
  const std::string name(word_at(context, 3));
  if (name.starts_with('-') || !check_token_name(name))
    return complain("a token name ([A-Za-z0-9_-], 1..64 characters) is required");
  if (action == "remove") return remove_token(file, name.c_str());
  return add_token(file, name.c_str(), option_value(context.args, "--role", nullptr),
                   std::time(nullptr));
}

}  // namespace

int command_api_token(const CommandContext& context) {
  try {
    return run_token_command(context);
  } catch (const std::bad_alloc&) {
    return complain("out of memory");
  }
}

}  // namespace orv
