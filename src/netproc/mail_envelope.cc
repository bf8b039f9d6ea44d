#include "netproc/mail_envelope.h"

#include <curl/curl.h>
#include <locale.h>

#include <algorithm>
#include <memory>

#include "common/message.h"

namespace orv {
namespace {

bool is_ascii(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= 0; });
}

struct UrlFree {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
  void operator()(char* text) const { curl_free(text); }
};

// The domain as A-labels; empty when there are none for it.
std::string ascii_domain(const std::string& domain) {
  const std::unique_ptr<CURLU, UrlFree> url(curl_url());
  char* text = nullptr;
  // Both are needed: libcurl gives no part of a URL that has no scheme.
  const bool done = url &&
                    curl_url_set(url.get(), CURLUPART_HOST, domain.c_str(), 0) == CURLUE_OK &&
                    curl_url_set(url.get(), CURLUPART_SCHEME, "smtp", 0) == CURLUE_OK &&
                    curl_url_get(url.get(), CURLUPART_HOST, &text, CURLU_PUNYCODE) == CURLUE_OK;
  const std::unique_ptr<char, UrlFree> owner(text);
  return done && is_ascii(text) ? text : "";
}

int convert(std::string_view address, std::string& out, std::span<char> err) {
  out = address;
  // Beside a local part that needs SMTPUTF8 the domain may stay as it is.
  if (is_ascii(address) || needs_utf8(address)) return 0;
  const std::size_t at = out.find('@');
  const std::string domain = ascii_domain(out.substr(at + 1));
  if (domain.empty()) {
    return fail(err, "the domain of %s cannot be written as A-labels (ASCII)", out.c_str());
  }
  out.replace(at + 1, std::string::npos, domain);
  return 0;
}

}  // namespace

int make_envelope(const IpcMailConfig& settings, MailEnvelope& out, std::span<char> err) {
  // One address that cannot be written fails the whole mail: it is a fault of the configuration.
  if (convert(settings.from.view(), out.from, err) != 0) return -1;
  for (const auto& recipient : settings.recipients) {
    if (convert(recipient.view(), out.recipients.emplace_back(), err) != 0) return -1;
  }
  return 0;
}

bool needs_utf8(std::string_view address) {
  return !is_ascii(address.substr(0, address.find('@')));
}

bool needs_utf8(const MailEnvelope& envelope) {
  const auto needs = [](const std::string& address) { return needs_utf8(address); };
  return needs(envelope.from) || std::ranges::any_of(envelope.recipients, needs);
}

std::vector<std::string> remove_utf8_recipients(MailEnvelope& envelope) {
  std::vector<std::string>& all = envelope.recipients;
  const auto removed = std::stable_partition(
      all.begin(), all.end(), [](const std::string& address) { return !needs_utf8(address); });
  std::vector<std::string> out(removed, all.end());
  all.erase(removed, all.end());
  return out;
}

// For this thread only: setlocale(3) would change it under the other one.
Utf8Locale::Utf8Locale()
    : own_(::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)),
      before_(own_ != nullptr ? ::uselocale(own_) : nullptr) {}

Utf8Locale::~Utf8Locale() {
  if (own_ == nullptr) return;
  (void)::uselocale(before_);
  ::freelocale(own_);
}

}  // namespace orv
