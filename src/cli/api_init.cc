#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>

#include "cli/commands.h"
#include "cli/console.h"
#include "common/files.h"
#include "net/certificate.h"

namespace orv {
namespace {

constexpr std::size_t kMaxCommonName = 64;  // of X.509 (RFC 5280, ub-common-name)

// Prints the outcome; false when there may be no certificate.
bool report_creation(ErrorCode rc, const ApiSection& api, const char* common_name) {
  if (rc == ErrorCode::Ok) {
    std::printf("created %s and %s (CN=%s, valid 10 years)\n", api.cert.c_str(), api.key.c_str(),
                common_name);
    return true;
  }
  if (rc == ErrorCode::AlreadyExists) {
    std::printf("certificate exists, kept: %s (use --force to replace it)\n", api.cert.c_str());
    return true;
  }
  const std::size_t length = std::strlen(common_name);
  if (length < 1 || length > kMaxCommonName) {
    (void)complain("cannot create %s / %s: the common name must have 1..%zu characters",
                   api.cert.c_str(), api.key.c_str(), kMaxCommonName);
    return false;
  }
  (void)complain("cannot create %s / %s (%s)", api.cert.c_str(), api.key.c_str(), error_text(rc));
  return false;
}

}  // namespace

int command_api_init(const CommandContext& context) {
  const std::unique_ptr<Config> config = load_config(context);
  if (!config) return kExitFailed;
  const ApiSection& api = config->api;

  char host[kMaxHostName + 1];
  const char* common_name = option_value(context.args, "--cn", nullptr);
  if (common_name == nullptr) common_name = host_name(host).data();
  const ErrorCode rc = cert_create(api.cert.c_str(), api.key.c_str(), common_name, kCertificateDays,
                                   option_present(context.args, "--force"));
  if (!report_creation(rc, api, common_name)) return kExitFailed;

  char fingerprint[kFingerprintSize];
  if (cert_fingerprint(api.cert.c_str(), fingerprint) == ErrorCode::Ok)
    std::printf("SHA-256 fingerprint: %s\n", fingerprint);
  return kExitOk;
}

}  // namespace orv
