// One connection against servers that tell the truth, lie, stall and hang up.
#include "client/connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "client/lying_server.h"

namespace orv::test {
namespace {

namespace asio = boost::asio;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::HasSubstr;
using ::testing::StartsWith;

ClientRequest request_of(std::string method, std::string path = "/api/v1/info") {
  ClientRequest request;
  request.method = std::move(method);
  request.path = std::move(path);
  return request;
}

// Runs exchanges to their end on one thread, all begun at once.
std::vector<ClientReply> replies(asio::io_context& io, ApiConnection& connection,
                                 const std::vector<ClientRequest>& requests,
                                 std::chrono::milliseconds time = 10s) {
  std::vector<ClientReply> all(requests.size());
  for (std::size_t i = 0; i < requests.size(); ++i) {
    asio::co_spawn(io, connection.exchange(requests[i], steady_clock::now() + time),
                   [&all, i](std::exception_ptr failed, ClientReply reply) {
                     EXPECT_EQ(failed, nullptr);
                     all[i] = std::move(reply);
                   });
  }
  io.restart();
  io.run();
  return all;
}

class Connection : public ::testing::Test {
 protected:
  ApiConnection connect(const LyingServer& server) {
    return connect(server.address(), server.fingerprint());
  }
  ApiConnection connect(const ServerAddress& at, const Sha256Digest& pin) {
    return {io_.get_executor(), at, pin, LyingServer::token()};
  }
  ClientReply ask(ApiConnection connection, const ClientRequest& request = request_of("GET"),
                  std::chrono::milliseconds time = 10s) {
    return replies(io_, connection, {request}, time).front();
  }
  asio::io_context io_;
};

TEST_F(Connection, SendsWhatItSignsAndKeepsItsConnection) {
  std::mutex mutex;
  std::vector<SeenRequest> seen;
  LyingServer server([&](const SeenRequest& request) {
    const std::lock_guard lock(mutex);
    seen.push_back(request);
    return LyingServer::signed_reply(request, 200, "{\"n\":" + std::to_string(seen.size()) + "}");
  });
  ApiConnection connection = connect(server);
  ClientRequest put = request_of("PUT", "/api/v1/jobs/" + path_segment("a b/\xc3\xa4"));
  put.body = "{}";
  put.if_match = "\"tag\"";
  ClientRequest log = request_of("GET", "/api/v1/jobs");
  log.query = "offset=1&limit=2";
  const auto got = replies(io_, connection, {put, log, request_of("POST", "/api/v1/mail/test")});
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].kind, ReplyKind::Signed) << got[i].error;
    EXPECT_EQ(got[i].body, "{\"n\":" + std::to_string(i + 1) + "}") << "in order";
  }
  const std::lock_guard lock(mutex);
  ASSERT_EQ(seen.size(), 3U);
  EXPECT_THAT(seen[0].text, StartsWith("PUT /api/v1/jobs/a%20b%2F%C3%A4 HTTP/1.1\r\nHost: 127.0."));
  EXPECT_THAT(seen[0].text, HasSubstr("\r\nIf-Match: \"tag\"\r\n"));
  EXPECT_THAT(seen[0].text, ::testing::EndsWith("Content-Length: 2\r\n\r\n{}"));
  EXPECT_THAT(seen[1].text, StartsWith("GET /api/v1/jobs?offset=1&limit=2 HTTP/1.1\r\n"));
  EXPECT_THAT(seen[2].text, HasSubstr("\r\nContent-Length: 0\r\n"));
  for (const SeenRequest& request : seen) EXPECT_EQ(request.connection, 1);
  EXPECT_EQ((std::set<std::string>{seen[0].nonce, seen[1].nonce, seen[2].nonce}).size(), 3U);
}

TEST_F(Connection, BelievesNothingThatTheSchedulerDidNotSign) {
  const auto says = [](std::string text) {
    return [text = std::move(text)](const SeenRequest&) { return text; };
  };
  const std::string ok = "HTTP/1.1 200 OK\r\n", refused = "HTTP/1.1 503 No\r\n";
  const std::string sig = "ORV-Signature: " + std::string(64, '0') + "\r\n";
  const std::string body = "Content-Length: 2\r\n\r\n{}";
  const std::string long_text(10'000'000, ' ');
  // 200 and "{}", with the signature of another reply.
  const auto signed_as = [&](int status, const char* text) {
    return [&, status, text](const SeenRequest& r) {
      return ok + "ORV-Signature: " + LyingServer::signature(r, status, text) + "\r\n" + body;
    };
  };
  const auto capitals = [&](const SeenRequest& r) {
    std::string line = LyingServer::signature(r, 200, "{}");
    for (char& c : line) c = static_cast<char>(::toupper(c));
    return ok + "ORV-Signature: " + line + "\r\n" + body;
  };
  const auto other_nonce = [](SeenRequest r) {
    r.nonce[0] = r.nonce[0] == '0' ? '1' : '0';
    return LyingServer::signed_reply(r, 200, "{}");
  };
  const auto twice = [&](const SeenRequest& r) {
    return LyingServer::signed_reply(r, 200, "{}", sig);
  };
  const auto too_long = [&](const SeenRequest& r) {
    return LyingServer::signed_reply(r, 200, long_text);
  };
  const auto half = [](const SeenRequest& r) {
    return LyingServer::signed_reply(r, 200, "{}").substr(0, 60) + LyingServer::kHangUp;
  };
  std::string chunks = ok + "Transfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 5000; ++i) chunks += "10\r\n0123456789abcdef\r\n";
  constexpr ReplyKind kNotTrusted = ReplyKind::NotTrusted, kUnreachable = ReplyKind::Unreachable;
  const char* const kNone = "carries no signature";
  const char* const kWrong = "the reply's signature is wrong";
  const char* const kNoAnswer = "no answer from the server: ";
  // clang-format off
  const struct { const char* lie; ReplyKind kind; const char* error; LyingServer::Answer answer; } cases[] = {
      {"unsigned",              kNotTrusted,  kNone,     says(ok + body)},
      {"unsigned 404",          kNotTrusted,  kNone,     says("HTTP/1.1 404 Not Found\r\n" + body)},
      {"unsigned 500",          kNotTrusted,  kNone,     says("HTTP/1.1 500 Oh\r\n" + body)},
      {"redirect",              kNotTrusted,  kNone,     says("HTTP/1.1 302 Found\r\nLocation: https://127.0.0.1/\r\n" + body)},
      {"continue",              kNotTrusted,  kNone,     says("HTTP/1.1 100 Continue\r\n\r\n")},
      {"upgrade",               kNotTrusted,  kNone,     says("HTTP/1.1 101 Switching\r\nUpgrade: x\r\n\r\n")},
      {"nothing there",         kNotTrusted,  kNone,     says("HTTP/1.1 204 No Content\r\n\r\n")},
      {"zeroes",                kNotTrusted,  kWrong,    says(ok + sig + body)},
      {"refusal with zeroes",   kNotTrusted,  kWrong,    says(refused + sig + body)},
      {"no hexadecimal digits", kNotTrusted,  kWrong,    says(ok + "ORV-Signature: \xc3\xa4\r\n" + body)},
      {"empty signature",       kNotTrusted,  kWrong,    says(refused + "ORV-Signature:\r\n" + body)},
      {"another status",        kNotTrusted,  kWrong,    signed_as(404, "{}")},
      {"another body",          kNotTrusted,  kWrong,    signed_as(200, "[]")},
      {"another nonce",         kNotTrusted,  kWrong,    other_nonce},
      {"two signatures",        kNotTrusted,  kWrong,    twice},
      {"signature in capitals", kNotTrusted,  kWrong,    capitals},
      {"10 MB",                 kUnreachable, kNoAnswer, too_long},
      {"10 MB without length",  kUnreachable, kNoAnswer, says(ok + "\r\n" + long_text)},
      {"endless chunks",        kUnreachable, kNoAnswer, says(chunks)},
      {"endless head",          kUnreachable, kNoAnswer, says(ok + "X: " + std::string(100'000, 'x') + "\r\n" + body)},
      {"two lengths",           kUnreachable, kNoAnswer, says(ok + "Content-Length: 3\r\n" + body)},
      {"no HTTP",               kUnreachable, kNoAnswer, says("220 mail.example.com ESMTP\r\n\r\n")},
      {"half a reply, the end", kUnreachable, kNoAnswer, half},
      {"hang-up",               kUnreachable, kNoAnswer, says(LyingServer::kHangUp)},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lie);
    const LyingServer server(c.answer);
    const ClientReply reply = ask(connect(server));
    EXPECT_EQ(reply.kind, c.kind) << reply.error;
    EXPECT_THAT(reply.error, HasSubstr(c.error));
    EXPECT_TRUE(reply.body.empty());
    EXPECT_EQ(reply.status, 0);
  }
}

TEST_F(Connection, TellsARefusalThatNobodySigned) {
  LyingServer server([](const SeenRequest&) {
    return "HTTP/1.1 429 Too Many\r\nRetry-After: 17\r\nContent-Length: 2\r\n\r\n{}";
  });
  const ClientReply reply = ask(connect(server));
  EXPECT_EQ(reply.kind, ReplyKind::Unsigned);
  EXPECT_EQ(reply.status, 429);
  EXPECT_EQ(reply.retry_after_s, 17U);
  EXPECT_EQ(reply.body, "{}");
}

TEST_F(Connection, SendsNothingToAnotherCertificateAndNothingMalformed) {
  LyingServer server([](const SeenRequest& r) { return LyingServer::signed_reply(r, 200, "{}"); });
  Sha256Digest other = server.fingerprint();
  other[31] ^= 1U;
  const ClientReply reply = ask(connect(server.address(), other));
  EXPECT_EQ(reply.kind, ReplyKind::NotTrusted);
  EXPECT_THAT(reply.error, HasSubstr(fingerprint_text(server.fingerprint())));

  const ClientRequest malformed[] = {{"HEAD", "/a", "", "", ""},
                                     {"GET", "x", "", "", ""},
                                     {"GET", "/a b", "", "", ""},
                                     {"GET", "/a?b", "", "", ""},
                                     {"GET", "/\r\nX: y", "", "", ""},
                                     {"GET", "/\xe4", "", "", ""},
                                     {"GET", "/" + std::string(4096, 'x'), "", "", ""},
                                     {"PUT", "/a", "", "", "\"\r\nX: y"},
                                     {"GET", "/a", "a=1#b", "", ""}};
  for (const ClientRequest& request : malformed) {
    EXPECT_EQ(ask(connect(server), request).kind, ReplyKind::NotSent) << request.path;
  }
  EXPECT_EQ(server.requests(), 0);
  Sha256Digest seen{};
  asio::co_spawn(io_, fetch_fingerprint(server.address(), steady_clock::now() + 10s, seen),
                 [](std::exception_ptr, const std::string& error) { EXPECT_EQ(error, ""); });
  io_.restart();
  io_.run();
  EXPECT_EQ(seen, server.fingerprint());
}

// Every second request of a connection meets its end.
TEST_F(Connection, TriesAGetOnceMoreAndAChangeNever) {
  std::mutex mutex;
  std::set<int> connections;
  LyingServer server([&](const SeenRequest& request) {
    const std::lock_guard lock(mutex);
    return connections.insert(request.connection).second
               ? LyingServer::signed_reply(request, 200, "{}")
               : LyingServer::kHangUp;
  });
  ApiConnection connection = connect(server);
  const auto got =
      replies(io_, connection,
              {request_of("GET"), request_of("GET"), request_of("PUT"), request_of("GET")});
  EXPECT_EQ(got[1].kind, ReplyKind::Signed) << got[1].error;
  EXPECT_EQ(got[2].kind, ReplyKind::Unreachable);
  EXPECT_THAT(got[2].error, HasSubstr("(the request may have been carried out)"));
  EXPECT_EQ(got[3].kind, ReplyKind::Signed) << "on a new connection";
  EXPECT_EQ(server.requests(), 5);
}

// What follows a reply unasked must not be taken for the next one, nor a connection that the server
// has closed in between be used for a change.
TEST_F(Connection, NoticesWhatCameInBetween) {
  LyingServer server([&](const SeenRequest& request) {
    const std::string reply = LyingServer::signed_reply(request, 200, "{}");
    return request.connection == 1
               ? reply + reply
               : LyingServer::signed_reply(request, 200, "[]", "Connection: close\r\n");
  });
  ApiConnection connection = connect(server);
  const auto got =
      replies(io_, connection, {request_of("PUT"), request_of("PUT"), request_of("PUT")});
  EXPECT_EQ(got[0].body, "{}");
  EXPECT_EQ(got[1].body, "[]") << got[1].error;
  EXPECT_EQ(got[2].body, "[]") << got[2].error;
}

TEST_F(Connection, EndsAtItsDeadlineWhateverItWaitsFor) {
  LyingServer silent([](const SeenRequest&) { return LyingServer::kSayNothing; });
  ApiConnection connection = connect(silent);
  const auto got = replies(io_, connection, {request_of("GET"), request_of("GET")}, 100ms);
  for (const ClientReply& reply : got) {
    EXPECT_EQ(reply.kind, ReplyKind::Unreachable);
    EXPECT_EQ(reply.error, "no answer from the server: timed out");
  }
  // Somebody listens there, and nobody shakes hands.
  asio::ip::tcp::acceptor mute(io_, {asio::ip::address_v4::loopback(), 0});
  const std::uint16_t port = mute.local_endpoint().port();
  const auto error_of = [&](const char* host, std::uint16_t at, std::chrono::milliseconds time) {
    return ask(connect({host, at}, silent.fingerprint()), request_of("GET"), time).error;
  };
  EXPECT_EQ(error_of("127.0.0.1", port, 100ms), "no answer from the server: timed out");
  mute.close();
  EXPECT_THAT(error_of("localhost", port, 10s), HasSubstr("Connection refused"));
  EXPECT_THAT(error_of("no-such-host.invalid", 1, 10s),
              HasSubstr("cannot resolve 'no-such-host.invalid': "));
}

TEST_F(Connection, EndsItsExchangesWhenItGoes) {
  LyingServer silent([](const SeenRequest&) { return LyingServer::kSayNothing; });
  auto connection = std::make_unique<ApiConnection>(connect(silent));
  int ended = 0;
  for (int i = 0; i < 2; ++i) {
    asio::co_spawn(io_, connection->exchange(request_of("GET"), steady_clock::now() + 60s),
                   [&ended](std::exception_ptr, const ClientReply& reply) {
                     EXPECT_EQ(reply.error, "no answer from the server: closed");
                     ++ended;
                   });
  }
  while (silent.requests() == 0) io_.run_one_for(10ms);
  connection.reset();
  io_.run_for(10s);
  EXPECT_EQ(ended, 2);
}

}  // namespace
}  // namespace orv::test
