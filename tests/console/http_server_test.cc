#include "console/http_server.h"

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>
#include <string>
#include <thread>

namespace orv {
namespace {

using Client = boost::asio::ip::tcp::iostream;

// A server in a thread of its own that answers each request with its method, target and body, and
// whose streams send what `event` holds.
class Http : public testing::Test {
 protected:
  Http() {
    char err[128] = "";
    EXPECT_EQ(server_.listen("127.0.0.1", port_, err), 0) << err;
    guard_ = std::make_unique<Guard>("127.0.0.1", port_);
    server_.start(*guard_);
    thread_ = std::thread([this] { loop_.run(); });
  }
  ~Http() override {
    boost::asio::post(loop_, [this] {
      server_.stop();
      loop_.stop();
    });
    thread_.join();
  }

  // Connects and sends the text. A test that waits in vain fails instead of hanging.
  [[nodiscard]] Client connect(const std::string& text = {}) const {
    Client client;
    client.expires_after(std::chrono::seconds(10));
    client.connect("127.0.0.1", std::to_string(port_));
    client << text << std::flush;
    EXPECT_TRUE(client) << client.error().message();
    return client;
  }
  // What comes until `end` has come, or the connection closes.
  static std::string hear(Client& client, const std::string& end) {
    std::string text;
    char byte = 0;
    while (!text.ends_with(end) && client.get(byte)) text += byte;
    return text;
  }
  [[nodiscard]] std::string request(const std::string& line, const std::string& more = {}) const {
    const std::string cookie = guard_->set_cookie().substr(0, guard_->set_cookie().find(';'));
    const std::string host = "127.0.0.1:" + std::to_string(port_);
    return line + " HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
           "\r\nCookie: " + cookie + "\r\n" + more + "\r\n";
  }
  void set_event(const std::string& event) {
    boost::asio::post(loop_, [this, event] {
      event_ = event;
      server_.wake_streams();
    });
  }

  boost::asio::io_context loop_;
  std::string event_;  // of the loop's thread
  LocalServer server_{loop_,
                      LocalHttpLimits{.connections = 3},
                      {.handle =
                           [](const LocalRequest& r, const LocalRespond& respond) {
                             LocalReply reply;
                             reply.body =
                                 r.method + " " + r.target + " " + r.if_match + " " + r.body + "|";
                             respond(reply);
                           },
                       .open_stream =
                           [this] {
                             return [this, sent = std::string()]() mutable {
                               if (sent == event_) return std::string();
                               sent = event_;
                               return "data: " + sent + "\n\n";
                             };
                           }}};
  std::uint16_t port_ = 0;
  std::unique_ptr<Guard> guard_;
  std::thread thread_;
};

TEST_F(Http, AnswersRequestsThatCameTogetherOneAfterTheOther) {
  Client client = connect(request("PUT /a?b", "If-Match: \"x\"\r\nContent-Length: 3\r\n") + "one" +
                          request("GET /c"));
  EXPECT_NE(hear(client, "|").find("PUT /a?b \"x\" one|"), std::string::npos);
  const std::string second = hear(client, "|");
  EXPECT_TRUE(second.starts_with("HTTP/1.1 200 OK\r\n")) << second;
  EXPECT_TRUE(second.ends_with("GET /c  |")) << second;
}

TEST_F(Http, RefusesWhatIsMalformedTooLargeOrForeignAndCloses) {
  const std::pair<std::string, std::string> cases[] = {
      {"GET / HTTP/1.1\r\n\r\n", "403"},
      {"NONSENSE\r\n\r\n", "400"},
      {"GET / HTTP/9.9\r\n\r\n", "400"},
      {request("GET /", "X: " + std::string(20000, 'x') + "\r\n"), "431"},
      {request("PUT /", "Content-Length: 40000\r\n"), "413"},
      {request("PUT /", "Transfer-Encoding: chunked\r\n") + "zz\r\n", "400"},
      {request("GET /", "Host: evil.example\r\n"), "403"},
  };
  for (const auto& [text, status] : cases) {
    SCOPED_TRACE(text.substr(0, 60));
    Client client = connect(text);
    const std::string reply = hear(client, "}}");
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 " + status)) << reply;
    EXPECT_NE(reply.find("Cache-Control: no-store\r\n"), std::string::npos);
    EXPECT_EQ(client.get(), EOF);
  }
}

TEST_F(Http, AStreamBeginsWithWhatIsKnownAndFollowsWhatChanges) {
  set_event("one");
  Client client = connect(request("GET /api/events"));
  EXPECT_NE(hear(client, "\r\n\r\n").find("text/event-stream"), std::string::npos);
  const auto next = [&] {
    std::string text = hear(client, "\n\n");
    return text.substr(text.find("data: "));
  };
  EXPECT_EQ(next(), "data: one\n\n");
  set_event("two");
  EXPECT_EQ(next(), "data: two\n\n");
}

TEST_F(Http, StrangersCannotKeepTheOwnerOut) {
  const Client first = connect(), second = connect(), third = connect();
  for (int i = 0; i < 5; ++i) {
    Client owner = connect(request("GET /mine"));
    EXPECT_NE(hear(owner, "|").find("GET /mine"), std::string::npos);
  }
}

}  // namespace
}  // namespace orv
