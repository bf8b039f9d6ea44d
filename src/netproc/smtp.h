// Delivers one mail to the configured SMTP server, blocking the calling thread.
#ifndef ORV_NETPROC_SMTP_H_
#define ORV_NETPROC_SMTP_H_

#include <atomic>
#include <string>
#include <string_view>

#include "net/ipc.h"
#include "netproc/mail_envelope.h"

namespace orv {

struct SmtpOutcome {
  std::uint32_t status = 0;  // 0: the server has taken the mail for every recipient
  std::string error{};       // for the administrator: server, step, what it said; empty when sent
  bool lacks_utf8 = false;   // nothing was sent: an address needs SMTPUTF8, which is not offered
};

// Once per process, before any thread. Memory that libcurl frees, passwords among it, is zeroed
// from here on.
void smtp_init();

// `message` is the whole text with its headers. The settings' time limit holds for everything from
// the look-up of the name to the server's last word, within about a second; the answer to QUIT is
// waited for only briefly. TLS modes other than none never send anything but the greeting before
// the server's certificate was verified for the host name; with a user set, nothing is sent to a
// server that offers no login. When some recipients are refused the others still get the mail, and
// the outcome is a failure that says so. Setting `stop` gives up within about a second.
[[nodiscard]] SmtpOutcome smtp_send(const IpcMailConfig& settings, const MailEnvelope& envelope,
                                    std::string_view message, const std::atomic<bool>& stop);

}  // namespace orv

#endif  // ORV_NETPROC_SMTP_H_
