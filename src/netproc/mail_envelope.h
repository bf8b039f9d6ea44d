// Whom a mail is from and for, in the form that goes to the server and into the headers. Addresses
// beyond ASCII: a domain alone becomes its A-labels (RFC 5891), which every server takes; a local
// part needs a server that offers SMTPUTF8 (RFC 6531).
#ifndef ORV_NETPROC_MAIL_ENVELOPE_H_
#define ORV_NETPROC_MAIL_ENVELOPE_H_

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "net/ipc.h"

namespace orv {

struct MailEnvelope {
  std::string from;                     // domains as A-labels, here and below
  std::vector<std::string> recipients;  // in the order of the settings
};

// Fills the envelope of the settings' mails. 0; -1 when an address has a domain that no A-label
// stands for. Calling libcurl, it needs smtp_init().
[[nodiscard]] int make_envelope(const IpcMailConfig& settings, MailEnvelope& out,
                                std::span<char> err);

// The address can be given only to a server that offers SMTPUTF8.
[[nodiscard]] bool needs_utf8(std::string_view address);
[[nodiscard]] bool needs_utf8(const MailEnvelope& envelope);

// Takes out the recipients that need SMTPUTF8 and returns them. What is left may be nobody.
std::vector<std::string> remove_utf8_recipients(MailEnvelope& envelope);

// While it lives, texts that this thread hands to the C library are UTF-8, as the conversion of
// domains needs it. A system without the locale leaves everything as it was.
class Utf8Locale {
 public:
  Utf8Locale();
  Utf8Locale(const Utf8Locale&) = delete;
  Utf8Locale& operator=(const Utf8Locale&) = delete;
  ~Utf8Locale();

 private:
  locale_t own_;     // null: the system has no such locale
  locale_t before_;  // the thread's until then
};

}  // namespace orv

#endif  // ORV_NETPROC_MAIL_ENVELOPE_H_
