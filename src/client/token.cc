#include "client/token.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "common/files.h"
#include "common/message.h"
#include "common/secret.h"
#include "common/text.h"

namespace orv {
namespace {

// Room for a token with white space around it. What is longer holds something else.
constexpr std::size_t kMaxTokenFile = 1024;  // bytes

bool is_token_character(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '-';
}

}  // namespace

ClientTokenPtr parse_token(std::string_view text) {
  text = trim(text);
  const std::size_t dot = text.find('.');
  if (dot == std::string_view::npos || dot == 0) return nullptr;
  const std::string_view name = text.substr(0, dot);
  const std::string_view secret = text.substr(dot + 1);
  if (secret.size() != kTokenSecretSize) return nullptr;
  if (!std::all_of(name.begin(), name.end(), is_token_character)) return nullptr;
  if (!std::all_of(secret.begin(), secret.end(), is_token_character)) return nullptr;
  auto token = std::make_shared<ClientToken>();
  if (!token->name.set(name) || !token->secret.set(secret)) return nullptr;
  return token;
}

ClientTokenPtr read_token_file(const std::string& path, std::span<char> err) {
  // A fifo must not block, nor a terminal become ours.
  const ScopedFd file = open_file(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
  struct stat status {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    (void)fail(err, "cannot read the token file %s: %s", path.c_str(), ::strerror(errno));
    return nullptr;
  }
  if (!S_ISREG(status.st_mode)) {
    (void)fail(err, "the token file %s is not a regular file", path.c_str());
    return nullptr;
  }
  // What others could read may be known to them: better refused than believed to be safe.
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    (void)fail(err, "the token file %s is open to group or others (chmod 600 %s)", path.c_str(),
               path.c_str());
    return nullptr;
  }
  // Wiped when it goes, as the token itself.
  SecretString text;
  if (read_whole(file.get(), kMaxTokenFile, text) != ErrorCode::Ok) {
    (void)fail(err, "cannot read the token file %s: %s", path.c_str(), ::strerror(errno));
    return nullptr;
  }
  ClientTokenPtr token = parse_token(text);
  if (token == nullptr) {
    (void)fail(err, "the token file %s does not hold a token <name>.<secret>", path.c_str());
  }
  return token;
}

}  // namespace orv
