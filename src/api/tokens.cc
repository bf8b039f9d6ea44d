#include "api/tokens.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/files.h"
#include "common/line_syntax.h"
#include "common/message.h"
#include "common/secret.h"
#include "common/text.h"

namespace orv {
namespace {

constexpr std::size_t kMaxTokenLine = 511;  // bytes, line end included
constexpr std::size_t kSecretBytes = 32;
constexpr char kBase64Url[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr char kFileHeader[] =
    "# orv_sched API tokens -- managed by 'orv_sched api-token add|remove'. Keep this file "
    "root-only "
    "(0600).\n"
    "# <name> <role> <created-unix> <secret>\n";

bool is_token_text(std::string_view text, std::size_t least, std::size_t most) {
  const auto allowed = [](char c) { return c != '\0' && std::strchr(kBase64Url, c) != nullptr; };
  return text.size() >= least && text.size() <= most && std::ranges::all_of(text, allowed);
}

// Hands out a file's lines, newline included, from buffers that are zeroed at the end.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;
  ~LineReader() {
    ::explicit_bzero(chunk_, sizeof chunk_);
    ::explicit_bzero(line_, sizeof line_);
  }

  enum class Got { Line, End, TooLong, Failed };  // Failed: errno says why
  Got next(std::string_view& line) {
    std::size_t length = 0;
    for (;;) {
      if (at_ == filled_) {
        const Got got = refill();
        if (got == Got::Failed || (got == Got::End && length == 0)) return got;
        if (got == Got::End) break;
      }
      if (length == kMaxTokenLine) return Got::TooLong;
      line_[length++] = chunk_[at_++];
      if (line_[length - 1] == '\n') break;
    }
    line = {line_, length};
    return Got::Line;
  }

 private:
  Got refill() {
    ssize_t n = 0;
    do {
      n = ::read(fd_, chunk_, sizeof chunk_);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return Got::Failed;
    at_ = 0;
    filled_ = static_cast<std::size_t>(n);
    return n == 0 ? Got::End : Got::Line;
  }

  int fd_;
  std::size_t at_ = 0, filled_ = 0;
  char chunk_[4096];
  char line_[kMaxTokenLine];
};

// What one line says; its buffers are one longer than the longest text that the scan puts there.
struct TokenWords {
  TokenWords() = default;
  TokenWords(const TokenWords&) = delete;
  TokenWords& operator=(const TokenWords&) = delete;
  ~TokenWords() {
    ::explicit_bzero(text, sizeof text);
    ::explicit_bzero(secret, sizeof secret);
  }
  char text[kMaxTokenLine + 1];
  char name[128];
  char role[16];
  long long created = 0;
  char secret[128];
};

bool scan_words(std::string_view content, TokenWords& words) {
  if (content.find('\0') != std::string_view::npos) return false;
  std::memcpy(words.text, content.data(), content.size());
  words.text[content.size()] = '\0';
  char surplus[2];
  return std::sscanf(words.text, "%127s %15s %lld %127s %1s", words.name, words.role,
                     &words.created, words.secret, surplus) == 4;
}

int read_token_line(const char* path, int number, std::string_view raw, TokenStore& out,
                    std::span<char> err) {
  const std::optional<std::size_t> content = content_length(raw);
  if (!content) return fail(err, "%s:%d: unterminated quote", path, number);
  const std::string_view text = trim(raw.substr(0, *content));
  if (text.empty()) return 0;
  TokenWords words;
  if (!scan_words(text, words))
    return fail(err, "%s:%d: expected '<name> <role> <created> <secret>'", path, number);
  if (!check_token_name(words.name)) return fail(err, "%s:%d: invalid token name", path, number);
  auto token = std::make_unique<ApiToken>();
  if (!parse_role(words.role, token->role))
    return fail(err, "%s:%d: role must be read or admin", path, number);
  if (!is_token_text(words.secret, kTokenSecretLength, kTokenSecretLength))
    return fail(err, "%s:%d: malformed secret", path, number);
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

int read_open_file(int fd, const char* path, TokenStore& out, std::span<char> err) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return fail(err, "cannot read %s: %s", path, std::strerror(errno));
  if (!S_ISREG(st.st_mode)) return fail(err, "%s is not a regular file", path);
  if ((st.st_mode & 077) != 0)
    return fail(err, "%s must not be accessible by group/others (chmod 600)", path);
  LineReader reader(fd);
  std::string_view line;
  for (int number = 1;; ++number) {
    switch (reader.next(line)) {
      case LineReader::Got::End: return 0;
      case LineReader::Got::Failed:
        return fail(err, "cannot read %s: %s", path, std::strerror(errno));
      case LineReader::Got::TooLong: return fail(err, "%s:%d: line too long", path, number);
      case LineReader::Got::Line:
        if (read_token_line(path, number, line, out, err) != 0) return -1;
    }
  }
}

void append(SecretBytes& text, std::string_view part) {
  std::memcpy(text.data() + text.size(), part.data(), part.size());
  text.set_size(text.size() + part.size());
}

// The whole text of the file.
SecretBytes format_tokens(const TokenStore& store) {
  constexpr std::size_t kLongestLine = kMaxTokenName + kTokenSecretLength + sizeof "admin" + 24;
  SecretBytes text(sizeof kFileHeader + store.tokens.size() * kLongestLine);
  append(text, kFileHeader);
  for (const std::unique_ptr<ApiToken>& token : store.tokens) {
    append(text, token->name.view());
    append(text, " ");
    append(text, role_name(token->role));
    append(text, " ");
    append(text, std::to_string(token->created));
    append(text, " ");
    append(text, token->secret.view());
    append(text, "\n");
  }
  return text;
}

// Whether all of it is on the disk; errno says why not.
bool write_and_close(ScopedFd file, std::string_view text) {
  if (write_all(file.get(), text) != ErrorCode::Ok) return false;
  return ::fsync(file.get()) == 0 && ::close(file.release()) == 0;
}

}  // namespace

const char* role_name(TokenRole role) { return role == TokenRole::Admin ? "admin" : "read"; }

bool parse_role(std::string_view text, TokenRole& out) {
  if (text != "read" && text != "admin") return false;
  out = text == "admin" ? TokenRole::Admin : TokenRole::Read;
  return true;
}

bool check_token_name(std::string_view text) { return is_token_text(text, 1, kMaxTokenName); }

const ApiToken* find_token(const TokenStore& store, std::string_view name) {
  for (const std::unique_ptr<ApiToken>& token : store.tokens)
    if (token->name == name) return token.get();
  return nullptr;
}

int read_tokens(const char* path, TokenStore& out, std::span<char> err) {
  out.tokens.clear();
  // Not blocking: a FIFO in the file's place must not hold the daemon up.
  const ScopedFd file = open_file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  if (!file.valid()) {
    if (errno == ENOENT) return 0;
    return fail(err, "cannot read %s: %s", path, std::strerror(errno));
  }
  if (read_open_file(file.get(), path, out, err) == 0) return 0;
  out.tokens.clear();
  return -1;
}

int write_tokens(const char* path, const TokenStore& store, std::span<char> err) {
  const std::string temp = std::string(path) + ".tmp." + std::to_string(::getpid());
  (void)::unlink(temp.c_str());  // what a process of the same id left behind, if anything
  ScopedFd file = open_file(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
  if (!file.valid()) return fail(err, "cannot write %s: %s", temp.c_str(), std::strerror(errno));
  const SecretBytes text = format_tokens(store);
  if (write_and_close(std::move(file), text.view()) && ::rename(temp.c_str(), path) == 0) return 0;
  const int cause = errno;
  (void)::unlink(temp.c_str());
  return fail(err, "cannot write %s: %s", path, std::strerror(cause));
}

int new_token_secret(FixedSecret<kTokenSecretLength>& out) {
  unsigned char random[kSecretBytes + 1] = {};  // one zero byte makes whole groups of three
  char text[kTokenSecretLength + 1];
  const ScopedWipe wipe_random(random, sizeof random);
  const ScopedWipe wipe_text(text, sizeof text);
  if (RAND_bytes(random, kSecretBytes) != 1) return -1;
  for (std::size_t group = 0; group < sizeof random / 3; ++group) {
    const unsigned char* in = random + 3 * group;
    const unsigned bits = static_cast<unsigned>(in[0] << 16 | in[1] << 8 | in[2]);
    for (std::size_t i = 0; i < 4; ++i) text[4 * group + i] = kBase64Url[bits >> (18 - 6 * i) & 63];
  }
  return out.set({text, kTokenSecretLength}) ? 0 : -1;
}

}  // namespace orv
