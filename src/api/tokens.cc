#include "api/tokens.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/files.h"
#include "common/line_syntax.h"
#include "common/message.h"
#include "common/replacement_file.h"
#include "common/secret.h"
#include "common/text.h"

namespace orv {
namespace {

constexpr std::size_t kMaxTokenLine = 511;       // bytes, line end included
constexpr std::size_t kMaxTokensFile = 1048576;  // bytes, remarks and all
constexpr std::size_t kSecretBytes = 32;
constexpr char kFileHeader[] =
    "# orv_sched API tokens -- managed by 'orv_sched api-token add|remove'. Keep this file "
    "root-only "
    "(0600).\n"
    "# <name> <role> <created-unix> <secret>\n";

// The words of one line; each buffer is one longer than the longest text that the scan puts there.
// The secret can stand in any of them when the line is malformed.
struct TokenWords {
  char name[128];
  char role[16];
  long long created = 0;
  char secret[128];
};

bool scan_words(std::string_view content, TokenWords& words) {
  if (content.find('\0') != std::string_view::npos) return false;  // it would hide what follows
  const SecretString text(content);  // ended by a NUL, as the scan needs it
  char surplus[2];
  const ScopedWipe wipe(surplus, sizeof surplus);
  return std::sscanf(text.c_str(), "%127s %15s %lld %127s %1s", words.name, words.role,
                     &words.created, words.secret, surplus) == 4;
}

int read_token_line(const char* path, int number, std::string_view raw, TokenStore& out,
                    std::span<char> err) {
  const std::optional<std::size_t> content = content_length(raw);
  if (!content) return fail(err, "%s:%d: unterminated quote", path, number);
  const std::string_view text = trim(raw.substr(0, *content));
  if (text.empty()) return 0;
  // From here on the secret is in several places; each wipes itself, whichever way this is left.
  TokenWords words{};
  const ScopedWipe wipe(&words, sizeof words);
  if (!scan_words(text, words))
    return fail(err, "%s:%d: expected '<name> <role> <created> <secret>'", path, number);
  if (!check_token_name(words.name)) return fail(err, "%s:%d: invalid token name", path, number);
  auto token = std::make_unique<ApiToken>();
  if (!parse_role(words.role, token->role))
    return fail(err, "%s:%d: role must be read or admin", path, number);
  if (!check_token_secret(words.secret)) return fail(err, "%s:%d: malformed secret", path, number);
  if (find_token(out, words.name) != nullptr)
    return fail(err, "%s:%d: duplicate token name '%s'", path, number, words.name);
  if (out.tokens.size() == kMaxTokens) return fail(err, "%s: too many tokens", path);
  token->created = words.created;
  // Both fit: their lengths were checked above.
  (void)token->name.set(words.name);
  (void)token->secret.set(words.secret);
  out.tokens.push_back(std::move(token));
  return 0;
}

int read_token_lines(const char* path, std::string_view text, TokenStore& out,
                     std::span<char> err) {
  for (int number = 1; !text.empty(); ++number) {
    const std::size_t feed = text.find('\n');
    const std::string_view line = text.substr(0, feed == std::string_view::npos ? feed : feed + 1);
    // Counted with its end, as lines read into a buffer of 512 bytes would be.
    if (line.size() > kMaxTokenLine) return fail(err, "%s:%d: line too long", path, number);
    if (read_token_line(path, number, line, out, err) != 0) return -1;
    text.remove_prefix(line.size());
  }
  return 0;
}

TokensRead cannot_read(const char* path, std::span<char> err) {
  const int cause = errno;
  (void)fail(err, "cannot read %s: %s", path, std::strerror(cause));
  return is_passing(cause) ? TokensRead::Passing : TokensRead::Faulty;
}

TokensRead read_open_file(int fd, const char* path, TokenStore& out, std::span<char> err) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return cannot_read(path, err);
  if (!S_ISREG(st.st_mode)) {
    (void)fail(err, "%s is not a regular file", path);
    return TokensRead::Faulty;
  }
  if ((st.st_mode & 077) != 0) {
    (void)fail(err, "%s must not be accessible by group/others (chmod 600)", path);
    return TokensRead::Faulty;
  }
  SecretString text;
  if (read_whole(fd, kMaxTokensFile, text) != ErrorCode::Ok) return cannot_read(path, err);
  return read_token_lines(path, text, out, err) == 0 ? TokensRead::Ok : TokensRead::Faulty;
}

// The whole text of the file.
SecretString format_tokens(const TokenStore& store) {
  SecretString text = kFileHeader;
  for (const std::unique_ptr<ApiToken>& token : store.tokens) {
    text.append(token->name.view()).append(" ").append(role_name(token->role)).append(" ");
    text.append(std::to_string(token->created)).append(" ");
    text.append(token->secret.view()).append("\n");
  }
  return text;
}

}  // namespace

const char* role_name(TokenRole role) { return role == TokenRole::Admin ? "admin" : "read"; }

bool parse_role(std::string_view text, TokenRole& out) {
  if (text != "read" && text != "admin") return false;
  out = text == "admin" ? TokenRole::Admin : TokenRole::Read;
  return true;
}

// Names are no secrets: this need not take the same time for each.
const ApiToken* find_token(const TokenStore& store, std::string_view name) {
  for (const std::unique_ptr<ApiToken>& token : store.tokens)
    if (token->name == name) return token.get();
  return nullptr;
}

ScopedFd lock_tokens(const char* path, std::span<char> err) {
  const std::string name = std::string(path) + ".lock";
  ScopedFd lock = open_file(name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (lock.valid() && lock_exclusively(lock.get())) return lock;
  (void)fail(err, "cannot lock %s: %s", name.c_str(), std::strerror(errno));
  return ScopedFd();
}

TokensRead read_tokens(const char* path, TokenStore& out, std::span<char> err) {
  out.tokens.clear();
  // Not blocking: a FIFO in the file's place must not hold the daemon up.
  const ScopedFd file = open_file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  if (!file.valid()) return errno == ENOENT ? TokensRead::Ok : cannot_read(path, err);
  const TokensRead result = read_open_file(file.get(), path, out, err);
  if (result != TokensRead::Ok) out.tokens.clear();
  return result;
}

int write_tokens(const char* path, const TokenStore& store, std::span<char> err) {
  ReplacementFile file(tokens_temporary_prefix(path) + std::to_string(::getpid()));
  if (file.create(0600) != ErrorCode::Ok)
    return fail(err, "cannot write %s: %s", file.path().c_str(), std::strerror(errno));
  // The directory is flushed as well: a token that was removed must not be back after a power loss.
  if (file.write(format_tokens(store)) != ErrorCode::Ok || file.finish() != ErrorCode::Ok ||
      file.move_to(path, DirectoryFlush::Yes) != ErrorCode::Ok)
    return fail(err, "cannot write %s: %s", path, std::strerror(errno));
  return 0;
}

std::string tokens_temporary_prefix(const std::string& path) { return path + ".tmp."; }

int new_token_secret(FixedSecret<kTokenSecretLength>& out) {
  unsigned char random[kSecretBytes + 1] = {};  // one zero byte makes whole groups of three
  char text[kTokenSecretLength + 1];
  const ScopedWipe wipe_random(random, sizeof random);
  const ScopedWipe wipe_text(text, sizeof text);
  if (RAND_bytes(random, kSecretBytes) != 1) return -1;
  // 33 bytes give 44 digits; the last one, of the zero byte, is what padding would stand for.
  for (std::size_t group = 0; group < sizeof random / 3; ++group) {
    const unsigned char* in = random + 3 * group;
    const unsigned bits = static_cast<unsigned>(in[0] << 16 | in[1] << 8 | in[2]);
    for (std::size_t i = 0; i < 4; ++i)
      text[4 * group + i] = kBase64UrlDigits[bits >> (18 - 6 * i) & 63];
  }
  return out.set({text, kTokenSecretLength}) ? 0 : -1;
}

}  // namespace orv
