#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <list>

#include "netproc/http_message.h"
#include "netproc/net_driver.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::Reply;
using test::TlsClient;
using ::testing::HasSubstr;

constexpr std::string_view kGoodRequest =
    "GET /api/v1/info HTTP/1.1\r\nHost: h\r\nAuthorization: Bearer good\r\n\r\n";
std::string big_body(std::size_t size) { return std::string(size, 'x'); }

// Tells in the body what arrived. Authorization "Bearer bad" fails, the path "/silence" is not
// answered.
bool echo(const ApiRequest& request, ApiResponse& response) {
  static std::string body;  // used by one thread
  if (request.path == "/silence") return false;
  body.clear();
  for (const auto part : {request.method.view(), request.path.view(), request.query.view(),
                          request.if_match.view(), request.client.view()}) {
    body.append(part).append("|");
  }
  body += request.body.size() > 64 ? std::to_string(request.body.size()) : request.body;
  response.auth_failed = request.authorization == "Bearer bad";
  response.status = response.auth_failed ? 401 : 200;
  EXPECT_TRUE(response.etag.set("\"tag\""));
  EXPECT_TRUE(response.signature.set("00ff"));
  response.body = body;
  return true;
}

class Https : public ::testing::Test {
 protected:
  Https() { driver_.emplace(kShort, echo); }
  void serve(std::uint32_t max_clients = 16) {
    driver_->serve_api(test::make_certificate(dir_, "localhost"), max_clients);
  }
  void expect_good_client_served(const char* source = "127.0.0.9") {
    TlsClient good(driver_->port(), true, source);
    EXPECT_EQ(good.ask(kGoodRequest).status, 200);
  }

  static constexpr HttpsLimits kShort{.handshake = 700ms,
                                      .request = 700ms,
                                      .answer = 300ms,
                                      .reply = 700ms,
                                      .idle = 700ms,
                                      .farewell = 100ms};
  test::TempDir dir_;
  std::optional<test::NetDriver> driver_;
};

TEST_F(Https, HandsRequestsOverAndRepliesBack) {
  serve();
  TlsClient client(driver_->port());
  Reply reply = client.ask(
      "PUT /api/v1/jobs/a?x=1 HTTP/1.1\r\nHost: h\r\nIf-Match: \"t\"\r\nAuthorization: Bearer s\r\n"
      "Content-Length: 2\r\n\r\n{}");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "PUT|/api/v1/jobs/a|x=1|\"t\"|127.0.0.1|{}");
  EXPECT_THAT(reply.head, HasSubstr("\r\nETag: \"tag\"\r\nORV-Signature: 00ff\r\n"));
  EXPECT_TRUE(
      client.send("POST /a HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\n"
                  "Transfer-Encoding: chunked\r\n\r\n"));
  EXPECT_EQ(client.reply().status, 100);
  EXPECT_EQ(client.ask("3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n").body, "POST|/a|||127.0.0.1|abcde");
  std::string pipelined;
  for (int i = 0; i < 50; ++i)
    pipelined += "GET /" + std::to_string(i) + " HTTP/1.1\r\nHost: h\r\n\r\n";
  EXPECT_TRUE(client.send(pipelined));
  for (int i = 0; i < 50; ++i) {
    EXPECT_THAT(client.reply().body, HasSubstr("|/" + std::to_string(i) + "|"));
  }
  EXPECT_TRUE(client.send("\r\n"));  // a blank line is no request, nor the beginning of one
  EXPECT_TRUE(client.send("\r\n" + std::string(kGoodRequest)));
  EXPECT_EQ(client.reply().status, 200);
  EXPECT_TRUE(client.send(kGoodRequest));
  client.finish_sending();
  EXPECT_EQ(client.reply().status, 200);  // half-closed, and still answered
  EXPECT_TRUE(client.closed());
  EXPECT_EQ(driver_->hello_pid(), static_cast<std::uint32_t>(::getpid()));
}

TEST_F(Https, AnswersWhatCannotBeHandedOverItself) {
  serve();
  const std::string end = " HTTP/1.1\r\nHost: h\r\n\r\n";
  std::string many_headers = "GET / HTTP/1.1\r\nHost: h\r\n";
  for (int i = 0; i < 10'000; ++i) many_headers += "X-" + std::to_string(i) + ": y\r\n";
  const std::string start = "PUT / HTTP/1.1\r\nHost: h\r\n";
  // clang-format off
  const struct { std::string request; int status; const char* code; } kCases[] = {
      {many_headers + "\r\n", 431, "headers_too_large"},
      {"GET /" + big_body(2048) + end, 414, "uri_too_long"},
      {"GET /?" + big_body(1025) + end, 414, "uri_too_long"},
      {start + "Authorization: " + big_body(513) + "\r\n\r\n", 431, "headers_too_large"},
      {start + "If-Match: " + big_body(129) + "\r\n\r\n", 431, "headers_too_large"},
      {"GET *" + end, 400, "bad_request"},
      {"GET https://host" + end, 400, "bad_request"},
      {"GET /a#b" + end, 400, "bad_request"},
      {"GET /\xC3\xBC" + end, 400, "bad_request"},
      {start + "Authorization: a\tb\r\n\r\n", 400, "bad_request"},
      {"GET /" + big_body(100'000) + " HTTP/1.1\r\nHost: h\r\n\r\n", 414, "uri_too_long"},
      {start + "Content-Length: 32769\r\n\r\n" + big_body(32769), 413, "body_too_large"},
      {start + "Content-Length: 99999999999\r\n\r\n", 413, "body_too_large"},
      {start + "Transfer-Encoding: chunked\r\n\r\n9000\r\n" + big_body(0x9000) + "\r\n0\r\n\r\n", 413, "body_too_large"},
      {start + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400, "bad_request"},
      {start + "Transfer-Encoding: gzip\r\n\r\n", 400, "bad_request"},
      {start + "Transfer-Encoding: gzip, chunked\r\n\r\n", 501, "not_implemented"},
      {start + "Authorization: a\r\nAuthorization: b\r\n\r\n", 400, "bad_request"},
      {"GET / HTTP/1.1\r\n\r\n", 400, "bad_request"},
      {"GET / HTTP/3.7\r\nHost: h\r\n\r\n", 400, "bad_request"},
      {big_body(300) + "\r\n\r\n", 400, "bad_request"},
      {start + "Expect: miracles\r\n\r\n", 417, "expectation_failed"},
      {"PATCH /" + end, 405, "method_not_allowed"},
      {"get /" + end, 405, "method_not_allowed"},
      {"GET /silence" + end, 504, "timeout"},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.request.substr(0, 100));
    TlsClient client(driver_->port());
    (void)client.send(c.request);  // may be cut off: the reply comes before its end
    const Reply reply = client.reply();
    EXPECT_EQ(reply.status, c.status);
    EXPECT_THAT(reply.body, HasSubstr(std::string(R"({"error":{"code":")") + c.code + "\""));
    EXPECT_TRUE(client.closed());
  }
  EXPECT_EQ(driver_->requests(), 1);  // the one that was met with silence
  TlsClient client(driver_->port());
  const std::string path = "/" + big_body(2047), query = big_body(1024), tag = big_body(128);
  EXPECT_EQ(client
                .ask("PUT " + path + "?" + query +
                     " HTTP/1.1\r\nHost: h\r\nAuthorization: " + big_body(512) +
                     "\r\nIf-Match: " + tag + "\r\nContent-Length: 32768\r\n\r\n" + big_body(32768))
                .body,
            "PUT|" + path + "|" + query + "|" + tag + "|127.0.0.1|32768");
  EXPECT_EQ(client.ask("GET HTTPS://host:1/a?b=c?d" + end).body, "GET|/a|b=c?d||127.0.0.1|");
}

TEST_F(Https, EndsSlowAndSilentClientsAndServesGoodOnes) {
  serve(4);
  {
    TlsClient silent(driver_->port(), false), garbage(driver_->port(), false, "127.0.0.2");
    EXPECT_TRUE(garbage.send_raw("GET / HTTP/1.0\r\n\r\n"));
    EXPECT_TRUE(garbage.closed());
    EXPECT_TRUE(silent.send_raw(std::string_view("\x16\x03\x01", 3)));
    EXPECT_TRUE(silent.closed());
  }
  expect_good_client_served();
  {
    TlsClient slow(driver_->port());
    std::size_t sent = 0;  // a byte at a time, each well within the limit for all of them
    EXPECT_TRUE(test::wait_until(
        10s, [&] { return !slow.send(kGoodRequest.substr(sent++ % 20, 1)) || sent > 300; }));
    EXPECT_LE(sent, 300U);
  }
  expect_good_client_served();
  TlsClient idle(driver_->port());
  EXPECT_EQ(idle.ask(kGoodRequest).status, 200);
  EXPECT_TRUE(idle.closed());
}

TEST_F(Https, LeavesPlacesToOthersInAFlood) {
  serve(4);
  std::list<TlsClient> flood;
  for (int i = 0; i < 100; ++i) flood.emplace_back(driver_->port(), false);
  expect_good_client_served();  // the flood's address has its share and no more
  flood.clear();
  TlsClient a(driver_->port()), b(driver_->port(), true, "127.0.0.2");
  TlsClient c(driver_->port(), true, "127.0.0.3"), d(driver_->port(), true, "127.0.0.4");
  for (TlsClient* client : {&a, &b, &c, &d}) EXPECT_EQ(client->ask(kGoodRequest).status, 200);
  TlsClient again(driver_->port());  // a newcomer gets the place of its own idle connection
  EXPECT_TRUE(a.closed());
  for (TlsClient* client : {&again, &b, &c, &d}) EXPECT_EQ(client->ask(kGoodRequest).status, 200);
  expect_good_client_served();  // of a newcomer's neighbours, the longest idle makes room
  EXPECT_EQ(c.ask(kGoodRequest).status, 200);
}

TEST_F(Https, SilentClientsGiveTheirPlacesUpInAFullHouse) {
  driver_.emplace(HttpsLimits{.crowded_handshake = 100ms}, echo);
  serve(4);
  std::list<TlsClient> silent;
  for (int i = 0; i < 30; ++i) {
    silent.emplace_back(driver_->port(), false, ("127.0.1." + std::to_string(i % 5 + 1)).c_str());
  }
  const auto begun = std::chrono::steady_clock::now();
  expect_good_client_served();
  EXPECT_LT(std::chrono::steady_clock::now() - begun, HttpsLimits().handshake / 2);
}

TEST_F(Https, RefusesAnAddressAfterRepeatedAuthenticationFailures) {
  serve();
  const std::string bad = "GET / HTTP/1.1\r\nHost: h\r\nAuthorization: Bearer bad\r\n\r\n";
  TlsClient client(driver_->port());
  for (std::uint32_t i = 0; i < kAuthFailuresAllowed; ++i) EXPECT_EQ(client.ask(bad).status, 401);
  const int asked = driver_->requests();
  const Reply refused = client.ask(kGoodRequest);
  EXPECT_EQ(refused.status, 429);
  EXPECT_THAT(refused.head, HasSubstr("\r\nRetry-After: "));
  EXPECT_EQ(driver_->requests(), asked);
  expect_good_client_served();
}

TEST_F(Https, TakesModernTlsAndAKeyThatBelongsToItsCertificate) {
  const auto other = test::make_certificate(dir_, "other");
  driver_->serve_api({test::make_certificate(dir_, "localhost").certificate, other.key}, 4);
  serve();  // the wrong pair was refused with a line in the log, this one is taken
  expect_good_client_served();
  const std::string openssl =
      "openssl s_client -cipher DEFAULT:@SECLEVEL=0 -alpn h2,http/1.1 -connect 127.0.0.1:" +
      std::to_string(driver_->port()) + " ";
  for (const auto& [option, accepted] : {std::pair{"-tls1_3", true},
                                         {"-tls1_2", true},
                                         {"-tls1_1", false},
                                         {"-groups P-384", true},
                                         {"-groups ffdhe2048", false}}) {  // costs us too much
    const auto shown = test::run_program({"sh", "-c", openssl + option});
    EXPECT_EQ(test::contains(shown.out, "ALPN protocol: http/1.1"), accepted) << shown.out;
  }
}

}  // namespace
}  // namespace orv
