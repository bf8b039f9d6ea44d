// Who may speak to the console. It serves whoever runs it, on loopback, where every other user of
// the machine and every page in the browser can send requests too. So each request must name the
// address listened on (a foreign name that resolves to loopback is an attack), must not come from
// another origin, and must bring the cookie that the key in the printed URL was exchanged for.
// Pure: nothing here reads the clock or a socket.
#ifndef ORV_CONSOLE_GUARD_H_
#define ORV_CONSOLE_GUARD_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace orv {

// What of a request's head the guard looks at. `host` and `origin` are empty when absent;
// `ambiguous` says that one of the three fields stands twice.
struct GuardedHead {
  std::string_view method;
  std::string_view target;  // as it came, the query included
  std::string_view host;
  std::string_view origin;  // RFC 6454, section 7: browsers set it, no script can
  std::string_view cookie;
  bool ambiguous = false;
};

enum class GuardVerdict {
  Pass,    // answer it
  SignIn,  // a good key: set the cookie and redirect to "/"
  Refuse,  // 403
};

class Guard {
 public:
  // `address` is numeric, without brackets. Draws the secrets; aborts when there is no randomness.
  Guard(std::string_view address, std::uint16_t port);

  // A key that is good once counts as used after SignIn.
  [[nodiscard]] GuardVerdict judge(const GuardedHead& head);

  // Why judge() last refused, one sentence for the reply.
  [[nodiscard]] const char* reason() const { return reason_; }

  // http://ADDRESS:PORT/?key=KEY, good until the program ends.
  [[nodiscard]] std::string url() const;
  // The same with a key that is good for one sign-in; each call makes the key before it void.
  [[nodiscard]] std::string url_once();
  // The Set-Cookie field of a sign-in. The name has the port: browsers keep one jar for all ports.
  [[nodiscard]] std::string set_cookie() const;

 private:
  [[nodiscard]] bool host_is_ours(std::string_view host) const;
  [[nodiscard]] bool cookie_is_good(std::string_view cookies) const;
  GuardVerdict refuse(const char* reason);

  std::string authority_;  // ADDRESS:PORT, with brackets for IPv6
  std::string localhost_;  // localhost:PORT
  std::string cookie_name_;
  std::string key_;
  std::string key_once_;  // empty: none, or used
  std::string cookie_;    // the value; the keys are never sent back to a browser
  const char* reason_ = "";
};

// 32 lower-case hexadecimal digits: 128 random bits.
[[nodiscard]] std::string random_key();

}  // namespace orv

#endif  // ORV_CONSOLE_GUARD_H_
