#include "console/guard.h"

#include <strings.h>

#include <cstdlib>

#include "client/signature.h"
#include "common/digest.h"
#include "common/host_port.h"

namespace orv {
namespace {

constexpr std::string_view kSignInTarget = "/?key=";
constexpr std::string_view kScheme = "http://";
constexpr std::string_view kDefaultPort = ":80";  // browsers leave it out

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  // Host names know no case (RFC 9110, section 4.2.3).
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Whether `host` is `authority`, whose port may be left out when it is HTTP's own.
bool names(std::string_view host, std::string_view authority) {
  if (equal_ignoring_case(host, authority)) return true;
  if (!authority.ends_with(kDefaultPort)) return false;
  authority.remove_suffix(kDefaultPort.size());
  return equal_ignoring_case(host, authority);
}

}  // namespace

std::string random_key() {
  std::string key = new_nonce();
  if (key.empty()) std::abort();  // a key that can be guessed is worse than none
  return key;
}

Guard::Guard(std::string_view address, std::uint16_t port)
    : key_(random_key()), cookie_(random_key()) {
  authority_ = host_port(address, port);
  // What people type; it can only mean this machine, as the address itself.
  localhost_ = host_port("localhost", port);
  cookie_name_ = "orv_console_" + std::to_string(port);
}

std::string Guard::url() const {
  return std::string(kScheme) + authority_ + std::string(kSignInTarget) + key_;
}

std::string Guard::url_once() {
  key_once_ = random_key();
  return std::string(kScheme) + authority_ + std::string(kSignInTarget) + key_once_;
}

std::string Guard::set_cookie() const {
  return cookie_name_ + "=" + cookie_ + "; Path=/; HttpOnly; SameSite=Strict";
}

bool Guard::host_is_ours(std::string_view host) const {
  return names(host, authority_) || names(host, localhost_);
}

bool Guard::cookie_is_good(std::string_view cookies) const {
  while (!cookies.empty()) {
    const std::size_t end = cookies.find(';');
    std::string_view pair = cookies.substr(0, end);
    cookies.remove_prefix(end == std::string_view::npos ? cookies.size() : end + 1);
    while (pair.starts_with(' ')) pair.remove_prefix(1);
    const std::size_t equals = pair.find('=');
    if (equals == std::string_view::npos || pair.substr(0, equals) != cookie_name_) continue;
    // One of several of that name may be stale, of another path or an earlier console: look on.
    if (equal_constant_time(pair.substr(equals + 1), cookie_)) return true;
  }
  return false;
}

GuardVerdict Guard::refuse(const char* reason) {
  reason_ = reason;
  return GuardVerdict::Refuse;
}

GuardVerdict Guard::judge(const GuardedHead& head) {
  // First of all: a name that an attacker resolves to loopback makes their page "our" origin.
  if (head.ambiguous || !host_is_ours(head.host)) {
    return refuse("this console answers only under the address that it listens on");
  }
  // Browsers leave Origin out of plain reads of their own page and send it with all else.
  const bool reads = head.method == "GET" || head.method == "HEAD";
  const bool own_origin = head.origin.size() > kScheme.size() && head.origin.starts_with(kScheme) &&
                          equal_ignoring_case(head.origin.substr(kScheme.size()), head.host);
  if (!own_origin && (!reads || !head.origin.empty())) {
    return refuse("this console answers its own page only");
  }
  if (head.method == "GET" && head.target.starts_with(kSignInTarget)) {
    const std::string_view key = head.target.substr(kSignInTarget.size());
    if (equal_constant_time(key, key_)) return GuardVerdict::SignIn;
    // Used up, it must not equal an empty key of the request.
    if (key_once_.empty() || !equal_constant_time(key, key_once_)) {
      return refuse("the key is not this console's: open the URL that it printed when it started");
    }
    // It stood on the command line of xdg-open, where every user of the machine can read it.
    key_once_.clear();
    return GuardVerdict::SignIn;
  }
  if (!cookie_is_good(head.cookie)) {
    return refuse("not signed in: open the URL that the console printed when it started");
  }
  return GuardVerdict::Pass;
}

}  // namespace orv
