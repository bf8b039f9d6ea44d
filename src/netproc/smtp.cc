#include "netproc/smtp.h"

#include <curl/curl.h>
#include <malloc.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <system_error>
#include <vector>

#include "common/files.h"
#include "common/host_port.h"
#include "common/text.h"
#include "netproc/smtp_dialogue.h"

namespace orv {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kQuitTimeout{2};  // for the answer to QUIT, once all is done
constexpr std::uint32_t kTlsNone = 0, kTlsStarttls = 1, kTlsSmtps = 2;  // IpcMailConfig::tls_mode
constexpr std::uint32_t kMaxTimeout = 7 * 24 * 60 * 60;  // seconds; keeps milliseconds in range

// One delivery under way: fed by libcurl's callbacks, read to word the outcome.
struct Delivery {
  const IpcMailConfig& settings;
  const MailEnvelope& envelope;
  std::string_view message;
  const std::atomic<bool>& stop;
  const Clock::time_point deadline;
  std::size_t offset = 0;  // bytes of the message handed to libcurl
  SmtpDialogue dialogue{};
  std::optional<Clock::time_point> taken_at{};
  std::vector<int> sockets{};  // open ones
  const char* lacking = "";    // what the server does not offer and the mail needs
  bool lacks_utf8 = false;
  bool out_of_time = false;
};

// libcurl would go on without a login, and would hand over raw bytes, when the server offers
// neither AUTH nor SMTPUTF8. The moment between the answer to EHLO and the next command belongs to
// nobody but this callback, so the connection is cut here: what libcurl writes after it goes
// nowhere.
void check_offers(Delivery& delivery) {
  const SmtpDialogue& dialogue = delivery.dialogue;
  if (!dialogue.greeted(delivery.settings.tls_mode == kTlsStarttls)) return;
  if (!delivery.settings.user.empty() && !dialogue.offers_auth()) {
    delivery.lacking = "smtp-user is set, but the server offers no login (AUTH)";
  } else if (needs_utf8(delivery.envelope) && !dialogue.offers_utf8()) {
    delivery.lacking = "an address is not ASCII, and the server does not offer SMTPUTF8";
    delivery.lacks_utf8 = true;
  } else {
    return;
  }
  for (const int fd : delivery.sockets) (void)::shutdown(fd, SHUT_RDWR);
}

int on_trace(CURL*, curl_infotype type, char* data, std::size_t size, void* user) {
  Delivery& delivery = *static_cast<Delivery*>(user);
  SmtpDialogue& dialogue = delivery.dialogue;
  if (type == CURLINFO_HEADER_OUT) dialogue.sent({data, size});
  if (type != CURLINFO_HEADER_IN) return 0;
  dialogue.received({data, size});
  if (*delivery.lacking == '\0') check_offers(delivery);
  if (dialogue.taken() && !delivery.taken_at) delivery.taken_at = Clock::now();
  return 0;
}

curl_socket_t on_socket(void* user, curlsocktype, curl_sockaddr* address) {
  const int fd = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (fd >= 0) static_cast<Delivery*>(user)->sockets.push_back(fd);
  return fd >= 0 ? fd : CURL_SOCKET_BAD;
}

int on_socket_end(void* user, curl_socket_t fd) {
  std::erase(static_cast<Delivery*>(user)->sockets, fd);
  return ::close(fd);
}

std::size_t on_read(char* into, std::size_t size, std::size_t count, void* user) {
  Delivery& delivery = *static_cast<Delivery*>(user);
  const std::size_t n = std::min(size * count, delivery.message.size() - delivery.offset);
  ::memcpy(into, delivery.message.data() + delivery.offset, n);
  delivery.offset += n;
  if (n > 0 && delivery.offset == delivery.message.size()) delivery.dialogue.message_sent();
  return n;
}

std::size_t on_output(char*, std::size_t size, std::size_t count, void*) { return size * count; }

// Called at least once a second, also in the waits that libcurl's own time limit does not cover:
// for the answers to the message's end and to QUIT.
int on_progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  Delivery& delivery = *static_cast<Delivery*>(user);
  const Clock::time_point now = Clock::now();
  const bool quit_overdue = delivery.taken_at && now - *delivery.taken_at > kQuitTimeout;
  delivery.out_of_time = now >= delivery.deadline;
  return delivery.stop.load(std::memory_order_relaxed) || quit_overdue || delivery.out_of_time ? 1
                                                                                               : 0;
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
  return std::string(settings.tls_mode == kTlsSmtps ? "smtps://" : "smtp://") +
         host_port(settings.host.view(), settings.port) + "/" +
         (is_host(own_name) ? std::string(own_name) : "localhost");
}

// Sets one option; the first one that libcurl does not take makes the delivery fail.
template <typename Value>
void set(CURL* curl, CURLcode& rc, CURLoption option, Value value) {
  if (rc == CURLE_OK) rc = curl_easy_setopt(curl, option, value);
}

CURLcode set_server(CURL* curl, const IpcMailConfig& settings) {
  CURLcode rc = CURLE_OK;
  const long limit_s = static_cast<long>(std::min(settings.timeout_s, kMaxTimeout));
  set(curl, rc, CURLOPT_URL, server_url(settings).c_str());
  set(curl, rc, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
  set(curl, rc, CURLOPT_PROXY, "");  // whatever the environment says
  set(curl, rc, CURLOPT_NOSIGNAL, 1L);
  set(curl, rc, CURLOPT_QUICK_EXIT, 1L);
  set(curl, rc, CURLOPT_TIMEOUT, limit_s);
  set(curl, rc, CURLOPT_CONNECTTIMEOUT, limit_s);
  set(curl, rc, CURLOPT_SERVER_RESPONSE_TIMEOUT, limit_s);  // else 120 s for each answer
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
  // A recipient that is refused does not keep the mail from the others. The trace is not printed:
  // it is how the dialogue is followed.
  CURLcode rc = CURLE_OK;
  set(curl, rc, CURLOPT_MAIL_FROM, delivery.envelope.from.c_str());
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
  set(curl, rc, CURLOPT_OPENSOCKETFUNCTION, &on_socket);
  set(curl, rc, CURLOPT_OPENSOCKETDATA, &delivery);
  set(curl, rc, CURLOPT_CLOSESOCKETFUNCTION, &on_socket_end);
  set(curl, rc, CURLOPT_CLOSESOCKETDATA, &delivery);
  set(curl, rc, CURLOPT_NOPROGRESS, 0L);
  set(curl, rc, CURLOPT_XFERINFOFUNCTION, &on_progress);
  set(curl, rc, CURLOPT_XFERINFODATA, &delivery);
  set(curl, rc, CURLOPT_ERRORBUFFER, error);
  return rc;
}

struct FailureRow {
  CURLcode code;
  const char* what;
  bool detail = false;   // libcurl's own words add something
  bool refusal = false;  // says by itself what the server refused
};
constexpr FailureRow kFailures[] = {
    {CURLE_COULDNT_RESOLVE_HOST, "the host name cannot be resolved"},
    {CURLE_COULDNT_CONNECT, "cannot connect"},
    {CURLE_OPERATION_TIMEDOUT, "the time limit was reached"},
    {CURLE_PEER_FAILED_VERIFICATION, "the server's certificate is not accepted", true},
    {CURLE_SSL_CACERT_BADFILE, "the ca-file cannot be used", true},
    {CURLE_SSL_CONNECT_ERROR, "the TLS handshake failed", true},
    {CURLE_USE_SSL_FAILED, "STARTTLS is required and the server does not do it", false, true},
    {CURLE_LOGIN_DENIED, "the login was refused", false, true},
    {CURLE_SEND_ERROR, "the connection was lost"},
    {CURLE_RECV_ERROR, "the connection was lost"},
    {CURLE_GOT_NOTHING, "the connection was lost"},
    {CURLE_ABORTED_BY_CALLBACK, "given up because the scheduler stops"},
};

const char* step_of(CURL* curl, const Delivery& delivery) {
  if (*delivery.dialogue.step() != '\0') return delivery.dialogue.step();
  curl_off_t connected_us = 0;
  (void)curl_easy_getinfo(curl, CURLINFO_CONNECT_TIME_T, &connected_us);  // 0 when it fails
  return connected_us > 0 ? "greeting" : "connection";
}

std::string first_refusal(const Delivery& delivery) {
  const SmtpDialogue& dialogue = delivery.dialogue;
  const auto& recipients = delivery.envelope.recipients;
  const bool known = dialogue.first_refused() < recipients.size();
  return (known ? recipients[dialogue.first_refused()] : std::string("a recipient")) + " (" +
         dialogue.first_refusal() + ")";
}

// What libcurl or the system adds to a failure that the server said nothing about.
std::string detail_of(CURL* curl, const Delivery& delivery, CURLcode code, const char* words) {
  long error_number = 0;
  (void)curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &error_number);  // 0 when it fails
  if (code == CURLE_COULDNT_CONNECT && error_number != 0) {
    return ": " + std::system_category().message(static_cast<int>(error_number));
  }
  if (code == CURLE_OPERATION_TIMEDOUT) {
    return ": " + std::to_string(delivery.settings.timeout_s) + " s";
  }
  return words[0] != '\0' ? std::string(": ") + words : "";
}

std::string failure_text(CURL* curl, const Delivery& delivery, CURLcode code, const char* words) {
  const SmtpDialogue& dialogue = delivery.dialogue;
  if (dialogue.refusals() > 0 && dialogue.refusals() == delivery.envelope.recipients.size()) {
    return "no recipient was accepted: " + first_refusal(delivery);
  }
  if (*delivery.lacking != '\0') return delivery.lacking;
  const FailureRow* row = std::ranges::find(kFailures, code, &FailureRow::code);
  const bool known = row != std::end(kFailures);
  // A server that refuses and then hangs up, or is silent, has said why: that goes first.
  const bool refused = dialogue.refused();
  std::string text = refused && !(known && row->refusal) ? "refused"
                     : known                             ? row->what
                                                         : curl_easy_strerror(code);
  if (code != CURLE_COULDNT_CONNECT && code != CURLE_COULDNT_RESOLVE_HOST) {
    text += std::string(" at ") + step_of(curl, delivery);
  }
  if (refused) return text + ", the server said: " + dialogue.answer();
  return text + detail_of(curl, delivery, code, !known || row->detail ? words : "");
}

SmtpOutcome outcome_of(CURL* curl, const Delivery& delivery, CURLcode code, const char* words) {
  const SmtpDialogue& dialogue = delivery.dialogue;
  // Once the server has taken the mail, nothing that follows makes it unsent.
  const bool taken = code == CURLE_OK || dialogue.taken();
  if (taken && dialogue.refusals() == 0) return {};
  if (code == CURLE_ABORTED_BY_CALLBACK && delivery.out_of_time) code = CURLE_OPERATION_TIMEDOUT;
  const std::size_t all = delivery.envelope.recipients.size();
  std::string text = host_port(delivery.settings.host.view(), delivery.settings.port) + ": ";
  if (taken && dialogue.refusals() < all) {
    text += "sent to " + std::to_string(all - dialogue.refusals()) + " of " + std::to_string(all) +
            " recipients only, refused: " + first_refusal(delivery);
  } else {
    text += failure_text(curl, delivery, code, words);
  }
  return {.status = 1, .error = text, .lacks_utf8 = delivery.lacks_utf8};
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

SmtpOutcome smtp_send(const IpcMailConfig& settings, const MailEnvelope& envelope,
                      std::string_view message, const std::atomic<bool>& stop) {
  if (!is_host(settings.host.view())) return refuse("smtp-host is not a host name or address");
  if (settings.tls_mode == kTlsNone && !settings.user.empty()) {
    return refuse("login without TLS would send the password in clear text");
  }
  const std::chrono::seconds limit(std::min(settings.timeout_s, kMaxTimeout));
  Delivery delivery{.settings = settings,
                    .envelope = envelope,
                    .message = message,
                    .stop = stop,
                    .deadline = Clock::now() + limit};
  // After the delivery, which closing the connection still uses.
  const CurlHandle curl(curl_easy_init());
  CurlList recipients;
  bool fits = curl != nullptr;
  for (const std::string& recipient : envelope.recipients) {
    fits = fits && append(recipients, recipient.c_str());
  }
  if (!fits) return refuse("out of memory");
  char words[CURL_ERROR_SIZE] = "";
  CURLcode rc = set_server(curl.get(), settings);
  if (rc == CURLE_OK) rc = set_delivery(curl.get(), delivery, recipients.get(), words);
  if (rc == CURLE_OK) rc = curl_easy_perform(curl.get());
  return outcome_of(curl.get(), delivery, rc, words);
}

}  // namespace orv
