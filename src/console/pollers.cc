#include "console/pollers.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <chrono>
#include <optional>
#include <utility>

#include "client/token.h"
#include "common/clock.h"
#include "console/poll_plan.h"

namespace orv {

namespace asio = boost::asio;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds kExchangeTime{10'000};
constexpr milliseconds kStagger{5};  // between the first requests to two servers
constexpr int kUnauthorized = 401;

}  // namespace

class Poller : public std::enable_shared_from_this<Poller> {
 public:
  Poller(asio::io_context& loop, Server server)
      : server_(std::move(server)), loop_(loop), timer_(loop), plan_(server_.name) {}

  asio::awaitable<void> run(milliseconds delay, const std::function<void()>& changed);
  asio::awaitable<ClientReply> pass(ClientRequest request);
  void hurry() {
    plan_.hurry(monotonic_ms());
    // Between two waits this does nothing: the poller then looks at the plan anyway.
    timer_.cancel();
  }
  [[nodiscard]] const KnownServer& known() const { return plan_.known(); }

 private:
  // A connection of the poller's and one for the page, which does not wait for the other.
  bool connect(std::optional<ApiConnection>& connection, std::string& error);
  asio::awaitable<void> ask(const Ask& what);
  asio::awaitable<void> wait(milliseconds time);

  const Server server_;
  asio::io_context& loop_;
  asio::steady_timer timer_;
  PollPlan plan_;
  std::optional<ApiConnection> polling_;
  std::optional<ApiConnection> passing_;
};

// The token is read when a connection is needed that has none, so that a token file mended while
// the console runs is noticed.
bool Poller::connect(std::optional<ApiConnection>& connection, std::string& error) {
  if (connection) return true;
  std::array<char, kClientMessageSize> reason{};
  ClientTokenPtr token = read_token_file(server_.token_file, reason);
  if (token == nullptr) {
    error = reason.data();
    return false;
  }
  connection.emplace(loop_.get_executor(), server_.address, server_.fingerprint, std::move(token));
  return true;
}

asio::awaitable<void> Poller::wait(milliseconds time) {
  boost::system::error_code ignored;  // cancelled: hurry() wants a look at once
  timer_.expires_after(time);
  co_await timer_.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
}

asio::awaitable<void> Poller::ask(const Ask& what) {
  std::string error;
  if (!connect(polling_, error)) {
    plan_.cannot_ask(error, monotonic_ms(), ::time(nullptr));
    co_return;
  }
  ClientRequest request;
  request.path = what.path;
  request.query = what.query;
  const ClientReply reply =
      co_await polling_->exchange(std::move(request), steady_clock::now() + kExchangeTime);
  // The token may be another one by now: it is read again for the next attempt.
  if (reply.status == kUnauthorized) polling_.reset();
  plan_.answered(what, reply, monotonic_ms(), ::time(nullptr));
}

asio::awaitable<void> Poller::run(milliseconds delay, const std::function<void()>& changed) {
  // A long list must not begin with as many handshakes at once.
  co_await wait(delay);
  while (true) {
    const std::int64_t now_ms = monotonic_ms();
    if (const auto what = plan_.next(now_ms)) {
      const std::uint64_t version = plan_.known().version;
      co_await ask(*what);
      if (plan_.known().version != version) changed();
    } else {
      co_await wait(milliseconds(std::max<std::int64_t>(1, plan_.next_at_ms(now_ms) - now_ms)));
    }
  }
}

asio::awaitable<ClientReply> Poller::pass(ClientRequest request) {
  ClientReply failed;
  // The page gets the reason as a server that cannot be reached.
  if (!connect(passing_, failed.error)) co_return failed;
  const bool changes = request.method != "GET";
  ClientReply reply =
      co_await passing_->exchange(std::move(request), steady_clock::now() + kExchangeTime);
  if (reply.status == kUnauthorized) passing_.reset();
  // The page shows the outcome as soon as the server does, not five seconds later.
  if (changes && reply.kind == ReplyKind::Signed && reply.status < 300) hurry();
  co_return reply;
}

Pollers::Pollers(asio::io_context& loop, std::vector<Server> servers, std::function<void()> changed)
    : loop_(loop), changed_(std::move(changed)) {
  for (Server& server : servers) {
    pollers_.push_back(std::make_shared<Poller>(loop, std::move(server)));
  }
}

Pollers::~Pollers() = default;

void Pollers::start() {
  milliseconds delay{0};
  for (const auto& poller : pollers_) {
    // The poller lives as long as the loop holds its coroutine.
    asio::co_spawn(
        loop_,
        [poller, delay, this]() -> asio::awaitable<void> { return poller->run(delay, changed_); },
        asio::detached);
    delay += kStagger;
  }
}

const KnownServer& Pollers::known(std::size_t index) const { return pollers_[index]->known(); }

std::size_t Pollers::find(std::string_view name) const {
  const auto found = std::find_if(pollers_.begin(), pollers_.end(),
                                  [&](const auto& poller) { return poller->known().name == name; });
  return static_cast<std::size_t>(found - pollers_.begin());
}

void Pollers::pass(std::size_t index, ClientRequest request,
                   std::function<void(ClientReply)> done) {
  asio::co_spawn(
      loop_,
      [poller = pollers_[index], request = std::move(request)]() mutable {
        return poller->pass(std::move(request));
      },
      [done = std::move(done)](const std::exception_ptr& fault, ClientReply reply) {
        if (fault) std::rethrow_exception(fault);  // out of memory: nothing can go on
        done(std::move(reply));
      });
}

}  // namespace orv
