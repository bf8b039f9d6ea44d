#include "api/handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/support.h"

namespace orv {
namespace {

using testing::HasSubstr;

constexpr std::string_view kSecret = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8";
constexpr std::int64_t kNow = 1767225600;
constexpr char kTokenFault[] = "the API's token file cannot be used (see the server log)";

class Handler : public testing::Test {
 protected:
  void SetUp() override {
    config_->api.enabled = true;
    EXPECT_TRUE(config_->api.tokens_file.set(path_));
    live_.config = config_;
    write_tokens_file(0600);
    // Routed, and answered without a configuration file.
    EXPECT_TRUE(request_.method.set("GET") && request_.path.set("/elsewhere") &&
                request_.query.set("a=b") && request_.client.set("192.0.2.7"));
  }
  void write_tokens_file(unsigned mode) {
    const std::string secret(kSecret);
    dir_.write("tokens", "watch read 1 " + secret + "\nboss admin 1 " + secret + "\n", mode);
  }
  void bearer() { EXPECT_TRUE(request_.authorization.set("Bearer watch." + std::string(kSecret))); }
  void sign(const std::string& nonce) {
    std::string text;
    const std::string ts = std::to_string(kNow);
    EXPECT_TRUE(canonical_request(request_, ts, nonce, text));
    EXPECT_TRUE(
        request_.authorization.set("ORV-HMAC-SHA256 key=boss, ts=" + ts + ", nonce=" + nonce +
                                   ", sig=" + std::string(hmac_sha256_hex(kSecret, text).view())));
  }
  // Answers the request; returns what was logged meanwhile.
  std::string answer() {
    return test::stderr_of([this] { api_handle_request_at(context_, kNow, request_, response_); });
  }
  void expect_error(std::uint32_t status, const std::string& code, const std::string& message) {
    EXPECT_EQ(response_.status, status);
    EXPECT_EQ(response_.body,
              R"({"error":{"code":")" + code + R"(","message":")" + message + "\"}}");
  }
  test::TempDir dir_;
  std::string path_ = dir_.file("tokens");
  std::shared_ptr<Config> config_ = std::make_shared<Config>();
  LiveState live_;
  ApiContext context_{live_};
  ApiRequest request_;
  ApiResponse response_;
};

TEST_F(Handler, SignsTheRepliesToSignedRequestsAndLogsAllButGet) {
  bearer();
  EXPECT_EQ(test::contains(answer(), "token '"), false);
  expect_error(404, "not_found", "unknown path");
  EXPECT_TRUE(response_.signature.empty());

  EXPECT_TRUE(request_.method.set("DELETE"));
  const std::string nonce(32, 'a');
  sign(nonce);
  EXPECT_THAT(answer(),
              HasSubstr("orv_sched API: token 'boss' from 192.0.2.7: DELETE /elsewhere\n"));
  expect_error(404, "not_found", "unknown path");
  EXPECT_EQ(response_.signature, sign_response(kSecret, nonce, 404, response_.body).view());
  EXPECT_FALSE(response_.auth_failed);
}

TEST_F(Handler, ARefusalIsFlaggedLoggedAndUnsigned) {
  EXPECT_THAT(answer(), HasSubstr("orv_sched API: GET /elsewhere from 192.0.2.7 refused: no "
                                  "credentials (Authorization: Bearer or ORV-HMAC-SHA256 "
                                  "expected)\n"));
  expect_error(401, "unauthorized",
               "no credentials (Authorization: Bearer or ORV-HMAC-SHA256 expected)");
  EXPECT_TRUE(response_.auth_failed);
  sign(std::string(32, 'a'));
  EXPECT_EQ(answer(), "");
  EXPECT_FALSE(response_.auth_failed);
  EXPECT_THAT(answer(), HasSubstr("refused: nonce already used"));
  EXPECT_EQ(response_.status, 401U);
  EXPECT_TRUE(response_.signature.empty());
}

TEST_F(Handler, TooManySignedRequestsAreNoFailureOfAuthentication) {
  char nonce[33];
  for (unsigned i = 0; i < kNonceSlots; ++i) {
    std::snprintf(nonce, sizeof nonce, "%032x", i);
    ASSERT_EQ(context_.nonces.accept(nonce, kNow), AuthResult::Ok);
  }
  sign(std::string(32, 'f'));
  EXPECT_FALSE(test::contains(answer(), "refused"));
  expect_error(503, "unavailable", "too many signed requests in the last minutes");
  EXPECT_FALSE(response_.auth_failed);
  EXPECT_TRUE(response_.signature.empty());
}

TEST_F(Handler, TokensAreLoadedWhenTheirFileChangesOnly) {
  bearer();
  EXPECT_THAT(answer(), HasSubstr("orv_sched API: 2 token(s) loaded from " + path_ + "\n"));
  EXPECT_EQ(answer(), "");

  ASSERT_EQ(::unlink(path_.c_str()), 0);
  EXPECT_THAT(answer(), HasSubstr("0 token(s) loaded"));
  EXPECT_THAT(response_.body, HasSubstr("unknown token"));
  EXPECT_FALSE(test::contains(answer(), "loaded"));

  write_tokens_file(0640);
  EXPECT_THAT(answer(), HasSubstr("orv_sched API: " + path_ +
                                  " must not be accessible by group/others (chmod 600) -- every "
                                  "API request is refused until this is fixed\n"));
  expect_error(503, "unavailable", kTokenFault);
  ASSERT_EQ(::chmod(path_.c_str(), 0600), 0);
  EXPECT_EQ(answer(), "") << "a new mode alone is no new file";
  expect_error(503, "unavailable", kTokenFault);
  ASSERT_EQ(::unlink(path_.c_str()), 0);
  dir_.write("other", "watch read 7 " + std::string(kSecret), 0600);
  ASSERT_EQ(::rename(dir_.file("other").c_str(), path_.c_str()), 0);
  EXPECT_THAT(answer(), HasSubstr("1 token(s) loaded"));
  EXPECT_EQ(response_.status, 404U);

  // A fault that passes is logged once and tried again with every request.
  dir_.write("tokens", "watch read 8 " + std::string(kSecret) + "\n\n", 0600);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit none{0, limit.rlim_max};
  const auto answer_without_descriptors = [&] {
    testing::internal::CaptureStderr();
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    api_handle_request_at(context_, kNow, request_, response_);
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    return testing::internal::GetCapturedStderr();
  };
  EXPECT_THAT(answer_without_descriptors(), HasSubstr("Too many open files -- every API request"));
  expect_error(503, "unavailable", kTokenFault);
  EXPECT_EQ(answer_without_descriptors(), "");
  EXPECT_THAT(answer(), HasSubstr("1 token(s) loaded"));

  config_->api.enabled = false;
  EXPECT_EQ(answer(), "");
  expect_error(503, "unavailable", "the API is disabled");
}

}  // namespace
}  // namespace orv
