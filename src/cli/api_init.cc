#include <fcntl.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "api/leftovers.h"
#include "cli/commands.h"
#include "cli/console.h"
#include "common/files.h"
#include "common/secret.h"
#include "common/utf8.h"
#include "net/certificate.h"

namespace orv {
namespace {

constexpr std::size_t kMaxCommonName = 64;  // characters (RFC 5280, ub-common-name)
constexpr std::size_t kMessageSize = 2048;

// Keeps two api-init from mixing their files. It is held from the look at the old pair to the
// renames of the new one, and never removed: another process may be waiting for it.
ScopedFd lock_pair(const ApiSection& api) {
  const std::string path = std::string(api.key.view()) + ".lock";
  ScopedFd lock = open_file(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (lock.valid() && !lock_exclusively(lock.get())) lock.reset();
  return lock;
}

// An existing pair stays, when it is one.
int keep_pair(const ApiSection& api) {
  SecretString cert;
  SecretString key;
  char err[kMessageSize];
  if (cert_load_pair(api.cert.c_str(), api.key.c_str(), cert, key, err) != CertPair::Usable) {
    return complain("%s (use --force to make a new pair)", err);
  }
  std::printf("certificate exists, kept: %s (use --force to replace it)\n", api.cert.c_str());
  return kExitOk;
}

// Why no pair could be made. `error_number` is what the failed call left, 0 when libcrypto failed.
std::string cause_of(ErrorCode rc, const char* common_name, int error_number) {
  const std::size_t length = utf8_length(common_name);
  if (length < 1 || length > kMaxCommonName) {
    return "the common name must have 1.." + std::to_string(kMaxCommonName) + " characters";
  }
  std::string text = error_text(rc);
  if (rc != ErrorCode::IoError || error_number == 0) return text;
  return text + ": " + std::strerror(error_number);
}

int create_pair(const ApiSection& api, const char* common_name, bool force) {
  remove_pair_leftovers(api.cert.c_str(), api.key.c_str());
  // errno is the reason for a failure below; 0 means that no system call failed.
  const ScopedFd lock = lock_pair(api);
  errno = lock.valid() ? 0 : errno;
  const ErrorCode rc = lock.valid() ? cert_create(api.cert.c_str(), api.key.c_str(), common_name,
                                                  kCertificateDays, force)
                                    : ErrorCode::IoError;
  if (rc == ErrorCode::AlreadyExists) return keep_pair(api);
  if (rc != ErrorCode::Ok) {
    return complain("cannot create %s / %s (%s)", api.cert.c_str(), api.key.c_str(),
                    cause_of(rc, common_name, errno).c_str());
  }
  std::printf("created %s and %s (CN=%s, valid 10 years)\n", api.cert.c_str(), api.key.c_str(),
              common_name);
  return kExitOk;
}

}  // namespace

int command_api_init(const CommandContext& context) {
  const std::unique_ptr<Config> config = load_config(context);
  if (!config) return kExitFailed;
  const ApiSection& api = config->api;

  char host[kMaxHostName + 1];
  const char* common_name = option_value(context.args, "--cn", nullptr);
  if (common_name == nullptr) common_name = host_name(host).data();
  const int status = create_pair(api, common_name, option_present(context.args, "--force"));
  if (status != kExitOk) return status;

  // Shown for a kept pair, too: it is what clients are given to pin.
  char fingerprint[kFingerprintSize];
  if (cert_fingerprint(api.cert.c_str(), fingerprint) == ErrorCode::Ok)
    std::printf("SHA-256 fingerprint: %s\n", fingerprint);
  std::puts(api.enabled ? "a running daemon uses it within a minute"
                        : "next: enabled=yes in [api]; a running daemon then starts the API");
  return kExitOk;
}

}  // namespace orv
