// Foreign bytes as an Authorization header, when the first is 'h', and as a tokens file otherwise.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "api/auth.h"
#include "api/tokens.h"
#include "fuzz/targets.h"

namespace orv::fuzz {
namespace {

constexpr std::string_view kSecret = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8";
constexpr std::int64_t kNow = 1767225600;

void add_token(TokenStore& store, const char* name, TokenRole role) {
  auto token = std::make_unique<ApiToken>();
  require(token->name.set(name) && token->secret.set(kSecret));
  token->role = role;
  store.tokens.push_back(std::move(token));
}

void try_header(std::string_view header) {
  TokenStore store;
  add_token(store, "backup", TokenRole::Admin);
  add_token(store, "watch", TokenRole::Read);
  NonceCache nonces;
  ApiRequest request;
  require(request.method.set("GET") && request.path.set("/api/v1/jobs") &&
          request.query.set("offset=50&limit=50"));
  request.authorization.set_truncated(header);
  Authenticated out;
  const AuthResult first = authenticate(store, nonces, kNow, request, out);
  require((first == AuthResult::Ok) == (out.token != nullptr));
  // A request that signed itself in must not do so again; any other is answered the same way twice.
  const bool again = out.is_signed;
  const AuthResult second = authenticate(store, nonces, kNow, request, out);
  require(second == (again ? AuthResult::NonceUsed : first));
}

// One file for all inputs, removed when the fuzzer ends.
class ScratchFile {
 public:
  ScratchFile() {
    fd_ = ::mkstemp(path_.data());
    require(fd_ >= 0);
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  ~ScratchFile() {
    (void)::unlink(path_.c_str());
    (void)::close(fd_);
  }
  const char* hold(std::string_view content) {
    require(::ftruncate(fd_, 0) == 0);
    require(::pwrite(fd_, content.data(), content.size(), 0) ==
            static_cast<ssize_t>(content.size()));
    return path_.c_str();
  }

 private:
  std::string path_ = "/tmp/orv_auth_fuzz.XXXXXX";
  int fd_ = -1;
};

void try_tokens_file(std::string_view content) {
  static ScratchFile file;
  TokenStore store;
  char err[1024] = "";
  if (read_tokens(file.hold(content), store, err) != TokensRead::Ok) {
    require(store.tokens.empty() && err[0] != '\0');
    return;
  }
  for (const auto& token : store.tokens) {
    require(check_token_name(token->name.view()));
    require(token->secret.size() == kTokenSecretLength);
    require(find_token(store, token->name.view()) == token.get());
  }
}

}  // namespace

void auth(std::string_view text) {
  if (text.starts_with('h')) {
    try_header(text.substr(1));
  } else {
    try_tokens_file(text.empty() ? text : text.substr(1));
  }
}

}  // namespace orv::fuzz
