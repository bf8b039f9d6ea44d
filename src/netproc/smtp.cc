#include "netproc/smtp.h"

#include <curl/curl.h>
#include <malloc.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "common/files.h"
#include "common/text.h"

namespace orv {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxAnswer = 200;               // bytes of a server's answer that are shown
constexpr std::chrono::seconds kQuitPatience{2};      // for the answer to QUIT, once all is done
constexpr std::uint32_t kTlsNone = 0, kTlsSmtps = 2;  // IpcMailConfig::tls_mode
constexpr std::uint32_t kMaxTimeout = 7 * 24 * 60 * 60;  // seconds; keeps milliseconds in range

// What one delivery has seen so far: fed by libcurl's callbacks, read to word the outcome.
struct Delivery {
  const IpcMailConfig& settings;
  std::string_view message;
  const std::atomic<bool>& stop;
  std::size_t offset = 0;     // bytes of the message handed to libcurl
  const char* step = "";      // empty: nothing was sent yet
  std::string answer{};       // the server's last one, its lines joined
  std::size_t recipient = 0;  // that RCPT was sent for; counts from 1
  std::size_t refused = 0;    // recipients
  std::string first_refusal{};
  bool message_sent = false;
  bool taken = false;  // the server answered to the whole message
  Clock::time_point taken_at{};
};

struct Verb {
  std::string_view name;
  const char* step;
};
constexpr Verb kVerbs[] = {
    {"EHLO", "EHLO"},
    {"HELO", "HELO"},
    {"STARTTLS", "STARTTLS"},
    {"AUTH", "login (AUTH)"},
    {"MAIL", "sender (MAIL FROM)"},
    {"RCPT", "recipient (RCPT TO)"},
    {"DATA", "DATA"},
};

// Only a known verb is looked at: what follows AUTH is the password in another dress.
void note_command(Delivery& delivery, std::string_view line) {
  const std::string_view word = line.substr(0, line.find_first_of(" :\r\n"));
  for (const Verb& verb : kVerbs) {
    if (word != verb.name) continue;
    delivery.step = verb.step;
    delivery.answer.clear();
    if (verb.name == "RCPT") ++delivery.recipient;
  }
}

void note_refusal(Delivery& delivery) {
  if (delivery.refused++ > 0) return;
  const auto& recipients = delivery.settings.recipients;
  if (delivery.recipient == 0 || delivery.recipient > recipients.size()) return;
  delivery.first_refusal =
      std::string(recipients[delivery.recipient - 1].view()) + " (" + delivery.answer + ")";
}

void note_answer(Delivery& delivery, std::string_view line) {
  line = trim_right(line);
  if (line.size() < 3 || !is_digit(line[0])) return;
  const bool last = line.size() == 3 || line[3] != '-';
  const bool continued = delivery.answer.size() > 3 && delivery.answer[3] == '-' &&
                         delivery.answer.compare(0, 3, line, 0, 3) == 0;
  if (continued) {
    delivery.answer += line.size() > 4 ? " " + std::string(line.substr(4)) : "";
  } else {
    delivery.answer = line;
  }
  if (delivery.answer.size() > kMaxAnswer) delivery.answer.resize(kMaxAnswer);
  for (char& c : delivery.answer) {
    if (c >= 0 && (c < 0x20 || c == 0x7F)) c = ' ';
  }
  if (!last) return;
  if (delivery.answer.size() > 3) delivery.answer[3] = ' ';
  if (::strncmp(delivery.step, "recipient", 9) == 0 && line[0] >= '4') note_refusal(delivery);
  if (delivery.message_sent && !delivery.taken) {
    delivery.taken = true;
    delivery.taken_at = Clock::now();
  }
}

int on_trace(CURL*, curl_infotype type, char* data, std::size_t size, void* user) {
  Delivery& delivery = *static_cast<Delivery*>(user);
  if (type == CURLINFO_HEADER_OUT) note_command(delivery, {data, size});
  if (type == CURLINFO_HEADER_IN) note_answer(delivery, {data, size});
  return 0;
}

std::size_t on_read(char* into, std::size_t size, std::size_t count, void* user) {
  Delivery& delivery = *static_cast<Delivery*>(user);
  const std::size_t n = std::min(size * count, delivery.message.size() - delivery.offset);
  ::memcpy(into, delivery.message.data() + delivery.offset, n);
  delivery.offset += n;
  if (delivery.offset == delivery.message.size()) {
    delivery.message_sent = true;
    delivery.step = "end of the message";
    delivery.answer.clear();
  }
  return n;
}

std::size_t on_output(char*, std::size_t size, std::size_t count, void*) { return size * count; }

// Called at least once a second, while waiting for the answer to QUIT too, which has no time limit
// of its own.
int on_progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  const Delivery& delivery = *static_cast<const Delivery*>(user);
  const bool tired_of_quit = delivery.taken && Clock::now() - delivery.taken_at > kQuitPatience;
  return delivery.stop.load(std::memory_order_relaxed) || tired_of_quit ? 1 : 0;
}

struct CurlFree {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlFree>;
using CurlList = std::unique_ptr<curl_slist, CurlFree>;

bool append(CurlList& list, const char* text) {
  curl_slist* longer = curl_slist_append(list.get(), text);
  if (longer == nullptr) return false;
  (void)list.release();  // it lives on as part of the longer one
  list.reset(longer);
  return true;
}

bool is_host(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '-' || c == '_' || c == ':' || c < 0;
  });
}

// scheme://host:port/name-for-EHLO
std::string server_url(const IpcMailConfig& settings) {
  char buffer[kMaxHostName + 1];
  const std::string_view own_name = host_name(buffer);
  const std::string host(settings.host.view());
  const bool is_v6 = host.find(':') != std::string::npos;
  return std::string(settings.tls_mode == kTlsSmtps ? "smtps://" : "smtp://") +
         (is_v6 ? "[" + host + "]" : host) + ":" + std::to_string(settings.port) + "/" +
         (is_host(own_name) ? std::string(own_name) : "localhost");
}

// Sets one option; the first one that libcurl does not take makes the delivery fail.
template <typename Value>
void set(CURL* curl, CURLcode& rc, CURLoption option, Value value) {
  if (rc == CURLE_OK) rc = curl_easy_setopt(curl, option, value);
}

CURLcode set_server(CURL* curl, const IpcMailConfig& settings) {
  CURLcode rc = CURLE_OK;
  const long limit_ms = static_cast<long>(std::min(settings.timeout_s, kMaxTimeout)) * 1000;
  set(curl, rc, CURLOPT_URL, server_url(settings).c_str());
  set(curl, rc, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
  set(curl, rc, CURLOPT_PROXY, "");  // whatever the environment says
  set(curl, rc, CURLOPT_NOSIGNAL, 1L);
  set(curl, rc, CURLOPT_QUICK_EXIT, 1L);
  set(curl, rc, CURLOPT_TIMEOUT_MS, limit_ms);
  set(curl, rc, CURLOPT_CONNECTTIMEOUT_MS, limit_ms);
  set(curl, rc, CURLOPT_FORBID_REUSE, 1L);
  set(curl, rc, CURLOPT_USE_SSL,
      static_cast<long>(settings.tls_mode == kTlsNone ? CURLUSESSL_NONE : CURLUSESSL_ALL));
  set(curl, rc, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  set(curl, rc, CURLOPT_SSL_VERIFYPEER, 1L);
  set(curl, rc, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!settings.ca_file.empty()) {  // then it alone decides, without the system's store
    set(curl, rc, CURLOPT_CAINFO, settings.ca_file.c_str());
    set(curl, rc, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  }
  if (!settings.user.empty()) {
    set(curl, rc, CURLOPT_LOGIN_OPTIONS, "AUTH=PLAIN;AUTH=LOGIN;AUTH=CRAM-MD5");
    set(curl, rc, CURLOPT_USERNAME, settings.user.c_str());
    set(curl, rc, CURLOPT_PASSWORD, settings.password.c_str());
  }
  return rc;
}

CURLcode set_delivery(CURL* curl, Delivery& delivery, curl_slist* recipients, char* error) {
  CURLcode rc = CURLE_OK;
  set(curl, rc, CURLOPT_MAIL_FROM, delivery.settings.from.c_str());
  set(curl, rc, CURLOPT_MAIL_RCPT, recipients);
  set(curl, rc, CURLOPT_MAIL_RCPT_ALLLOWFAILS, 1L);
  set(curl, rc, CURLOPT_UPLOAD, 1L);
  set(curl, rc, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(delivery.message.size()));
  set(curl, rc, CURLOPT_READFUNCTION, &on_read);
  set(curl, rc, CURLOPT_READDATA, &delivery);
  set(curl, rc, CURLOPT_WRITEFUNCTION, &on_output);
  set(curl, rc, CURLOPT_VERBOSE, 1L);
  set(curl, rc, CURLOPT_DEBUGFUNCTION, &on_trace);
  set(curl, rc, CURLOPT_DEBUGDATA, &delivery);
  set(curl, rc, CURLOPT_NOPROGRESS, 0L);
  set(curl, rc, CURLOPT_XFERINFOFUNCTION, &on_progress);
  set(curl, rc, CURLOPT_XFERINFODATA, &delivery);
  set(curl, rc, CURLOPT_ERRORBUFFER, error);
  return rc;
}

struct FailureRow {
  CURLcode code;
  const char* what;
  bool detail;  // libcurl's own words add something
};
constexpr FailureRow kFailures[] = {
    {CURLE_COULDNT_RESOLVE_HOST, "the host name cannot be resolved", false},
    {CURLE_COULDNT_CONNECT, "cannot connect", false},
    {CURLE_OPERATION_TIMEDOUT, "the time limit was reached", false},
    {CURLE_PEER_FAILED_VERIFICATION, "the server's certificate is not accepted", true},
    {CURLE_SSL_CACERT_BADFILE, "the ca-file cannot be used", true},
    {CURLE_SSL_CONNECT_ERROR, "the TLS handshake failed", true},
    {CURLE_USE_SSL_FAILED, "STARTTLS is required and the server does not do it", false},
    {CURLE_LOGIN_DENIED, "the login was refused", false},
    {CURLE_SEND_ERROR, "the connection was lost", false},
    {CURLE_RECV_ERROR, "the connection was lost", false},
    {CURLE_GOT_NOTHING, "the connection was lost", false},
    {CURLE_ABORTED_BY_CALLBACK, "given up because the scheduler stops", false},
};

const char* step_of(CURL* curl, const Delivery& delivery) {
  if (delivery.step[0] != '\0') return delivery.step;
  curl_off_t connected_us = 0;
  (void)curl_easy_getinfo(curl, CURLINFO_CONNECT_TIME_T, &connected_us);  // 0 when it fails
  return connected_us > 0 ? "greeting" : "connection";
}

std::string failure_text(CURL* curl, const Delivery& delivery, CURLcode code, const char* detail) {
  const FailureRow* row = std::find_if(std::begin(kFailures), std::end(kFailures),
                                       [&](const FailureRow& r) { return r.code == code; });
  const bool known = row != std::end(kFailures);
  const bool refused = !delivery.answer.empty() && delivery.answer[0] >= '4';
  if (delivery.refused > 0 && delivery.refused == delivery.settings.recipients.size()) {
    return "no recipient was accepted: " + delivery.first_refusal;
  }
  std::string text = known ? row->what : refused ? "refused" : curl_easy_strerror(code);
  if (code != CURLE_COULDNT_CONNECT && code != CURLE_COULDNT_RESOLVE_HOST) {
    text += std::string(" at ") + step_of(curl, delivery);
  }
  if (refused) return text + ", the server said: " + delivery.answer;
  long error_number = 0;
  (void)curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &error_number);  // 0 when it fails
  if (code == CURLE_COULDNT_CONNECT && error_number != 0) {
    text += ": " + std::system_category().message(static_cast<int>(error_number));
  } else if (code == CURLE_OPERATION_TIMEDOUT) {
    text += ": " + std::to_string(delivery.settings.timeout_s) + " s";
  } else if (detail[0] != '\0' && (!known || row->detail)) {
    text += std::string(": ") + detail;
  }
  return text;
}

SmtpOutcome outcome_of(CURL* curl, const Delivery& delivery, CURLcode code, const char* detail) {
  if (code == CURLE_OK && delivery.refused == 0) return {};
  const IpcMailConfig& settings = delivery.settings;
  std::string text(settings.host.view());
  text += ":" + std::to_string(settings.port) + ": ";
  if (code == CURLE_OK) {
    const std::size_t all = settings.recipients.size();
    text += "sent to " + std::to_string(all - delivery.refused) + " of " + std::to_string(all) +
            " recipients only, refused: " + delivery.first_refusal;
  } else {
    text += failure_text(curl, delivery, code, detail);
  }
  return {.status = 1, .error = text};
}

SmtpOutcome refuse(const char* why) { return {.status = 1, .error = why}; }

// libcurl keeps copies of the password and frees them as they are; these leave nothing behind.
void wiping_free(void* block) {
  if (block == nullptr) return;
  ::explicit_bzero(block, ::malloc_usable_size(block));
  std::free(block);
}
void* wiping_realloc(void* block, std::size_t size) {
  void* fresh = std::malloc(size);
  if (fresh == nullptr || block == nullptr) return fresh;
  ::memcpy(fresh, block, std::min(size, ::malloc_usable_size(block)));
  wiping_free(block);
  return fresh;
}

}  // namespace

void smtp_init() {
  (void)curl_global_init_mem(CURL_GLOBAL_DEFAULT, &std::malloc, &wiping_free, &wiping_realloc,
                             &::strdup, &std::calloc);  // a failure shows in curl_easy_init()
}

SmtpOutcome smtp_send(const IpcMailConfig& settings, std::string_view message,
                      const std::atomic<bool>& stop) {
  if (!is_host(settings.host.view())) return refuse("smtp-host is not a host name or address");
  if (settings.tls_mode == kTlsNone && !settings.user.empty()) {
    return refuse("login without TLS would send the password in clear text");
  }
  const CurlHandle curl(curl_easy_init());
  CurlList recipients;
  bool fits = curl != nullptr;
  for (const auto& recipient : settings.recipients) {
    fits = fits && append(recipients, recipient.c_str());
  }
  if (!fits) return refuse("out of memory");
  Delivery delivery{.settings = settings, .message = message, .stop = stop};
  char detail[CURL_ERROR_SIZE] = "";
  CURLcode rc = set_server(curl.get(), settings);
  if (rc == CURLE_OK) rc = set_delivery(curl.get(), delivery, recipients.get(), detail);
  if (rc == CURLE_OK) rc = curl_easy_perform(curl.get());
  return outcome_of(curl.get(), delivery, rc, detail);
}

}  // namespace orv
