// A network process for tests: the real one's side of the link, with manners to choose from.
//
// ORV_FAKE_NET names the manner. ORV_FAKE_NET_LOG names a file to which it appends a line for its
// start, each record received and its end. Nothing else is written anywhere: standard error stays
// the scheduler's. The scheduler passes no environment on: a script in between sets these.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "net/ipc.h"

namespace {

using namespace orv;

struct Fake {
  int ipc_fd = 3;  // the tests check that --ipc-fd says so
  FILE* log = nullptr;
  std::unique_ptr<IpcMessage> in = std::make_unique<IpcMessage>();
  std::unique_ptr<IpcMessage> out = std::make_unique<IpcMessage>();
  std::uint32_t requests = 0;
};

[[gnu::format(printf, 2, 3)]] void note(const Fake& fake, const char* format, ...) {
  if (fake.log == nullptr) return;
  va_list args;
  va_start(args, format);
  std::vfprintf(fake.log, format, args);
  va_end(args);
  std::fputc('\n', fake.log);
  std::fflush(fake.log);
}

void send_now(Fake& fake, int encoded) {
  if (encoded != 0 || ipc_send(fake.ipc_fd, *fake.out, false) != 0) ::_exit(3);
}

void hello(Fake& fake, int pid) {
  send_now(fake, ipc_encode_hello(*fake.out, static_cast<std::uint32_t>(pid)));
}

void send_request(Fake& fake) {
  ApiRequest request;
  (void)request.method.set("GET");
  (void)request.path.set("/api/v1/info");
  (void)request.client.set("192.0.2.1");
  send_now(fake, ipc_encode_api_request(*fake.out, ++fake.requests, request));
}

// Sends bytes of any length as one record.
void send_raw(Fake& fake, std::string_view bytes) {
  (void)::send(fake.ipc_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// A record that brings its own socket along.
void send_descriptor(Fake& fake) {
  (void)ipc_encode_hello(*fake.out, static_cast<std::uint32_t>(::getpid()));
  iovec bytes = {fake.out->bytes.data(), fake.out->length};
  alignas(cmsghdr) char space[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = space;
  message.msg_controllen = sizeof space;
  cmsghdr* head = CMSG_FIRSTHDR(&message);
  head->cmsg_level = SOL_SOCKET;
  head->cmsg_type = SCM_RIGHTS;
  head->cmsg_len = CMSG_LEN(sizeof(int));
  ::memcpy(CMSG_DATA(head), &fake.ipc_fd, sizeof(int));
  const bool sent = ::sendmsg(fake.ipc_fd, &message, MSG_NOSIGNAL) > 0;
  note(fake, "descriptor %s", sent ? "sent" : "refused");
}

// Leaves a process behind that holds the listening socket.
void leave_holder(Fake& fake) {
  if (::fork() == 0) {
    ::close(fake.ipc_fd);
    const char* log = ::getenv("ORV_FAKE_NET_LOG");  // it stays until the test's files are gone
    while (log != nullptr && ::access(log, F_OK) == 0) ::poll(nullptr, 0, 50);
    ::_exit(0);
  }
  hello(fake, ::getpid());
  note(fake, "held");
}

// What the manners do once, when they start; some also behave differently later.
struct Manner {
  const char* name;
  void (*start)(Fake& fake);
};
// clang-format off
constexpr Manner kManners[] = {
    {"good",      [](Fake& f) { hello(f, ::getpid()); }},
    {"slow",      [](Fake&) {}},  // no HELLO, and late with its answers
    {"reject",    [](Fake& f) { hello(f, ::getpid()); }},
    {"mute",      [](Fake& f) { hello(f, ::getpid()); }},  // reads, answers nothing
    {"wrong-pid", [](Fake& f) { hello(f, 1); }},
    {"exit",      [](Fake&) { ::_exit(7); }},
    {"quit-on-mail", [](Fake& f) { hello(f, ::getpid()); }},
    {"malformed", [](Fake& f) { send_raw(f, std::string(20, 'x')); }},
    {"empty",     [](Fake& f) { send_raw(f, ""); }},
    {"oversized", [](Fake& f) { send_raw(f, std::string(kIpcMaxRecord + 1, 'x')); }},
    {"bad-hello", [](Fake& f) { ipc_begin(*f.out, MessageType::Hello, 0); send_now(f, 0); }},
    {"bad-result", [](Fake& f) { ipc_begin(*f.out, MessageType::MailResult, 1); send_now(f, 0); }},
    {"bad-request", [](Fake& f) { ipc_begin(*f.out, MessageType::ApiRequest, 1); send_now(f, 0); }},
    {"forbidden", [](Fake& f) { send_now(f, ipc_encode_mail_send(*f.out, 1, "a", "b")); }},
    {"unknown",   [](Fake& f) { ipc_begin(*f.out, MessageType{99}, 1); send_now(f, 0); }},
    {"request",   [](Fake& f) { hello(f, ::getpid()); send_request(f); }},
    {"flood",     [](Fake& f) { for (;;) send_request(f); }},  // asks for ever, reads no answer
    {"descriptor", send_descriptor},
    {"holder",    leave_holder},
    {"escape",    [](Fake& f) { hello(f, ::getpid()); }},
};
// clang-format on

void on_mail_config(Fake& fake, const IpcParsed& in) {
  IpcMailConfig config;
  char err[256];
  if (ipc_decode_mail_config(in, config, err) != 0) return note(fake, "bad MAIL_CONFIG %s", err);
  note(fake, "mail-config id=%u host=%s port=%u tls=%u user=%s password=%s to=%zu timeout=%u",
       in.id, config.host.c_str(), config.port, config.tls_mode, config.user.c_str(),
       config.password.c_str(), config.recipients.size(), config.timeout_s);
}

void on_api_config(Fake& fake, const IpcParsed& in) {
  IpcApiConfig config;
  char err[256];
  if (ipc_decode_api_config(in, config, err) != 0) return note(fake, "bad API_CONFIG %s", err);
  note(fake, "api-config id=%u cert=%zu key=%zu max-clients=%u", in.id, config.cert_pem.size(),
       config.key_pem.size(), config.max_clients);
}

void on_mail(Fake& fake, const IpcParsed& in, std::string_view manner) {
  const auto text = std::make_unique<char[]>(2 * kIpcMaxRecord);
  const std::span<char> subject(text.get(), kIpcMaxRecord);
  const std::span<char> body(text.get() + kIpcMaxRecord, kIpcMaxRecord);
  char err[256];
  if (ipc_decode_mail_send(in, subject, body, err) != 0) return note(fake, "bad MAIL_SEND %s", err);
  note(fake, "mail id=%u subject=%s", in.id, subject.data());
  note(fake, "%s", body.data());
  if (manner == "mute") return;
  if (manner == "quit-on-mail") ::_exit(0);
  if (manner == "slow") ::poll(nullptr, 0, 300);
  const bool bad = manner == "reject" || manner == "escape";
  const char* error =
      manner == "escape" ? "550\r\n\x1b[2J\xc2\x9bno\xc3\x9f" : "550 no such user %s%n";
  send_now(fake, ipc_encode_mail_result(*fake.out, in.id, bad ? 550 : 0, error));
}

void on_response(Fake& fake, const IpcParsed& in) {
  ApiResponse response;
  char err[256];
  if (ipc_decode_api_response(in, response, err) != 0) {
    return note(fake, "bad API_RESPONSE %s", err);
  }
  note(fake, "response id=%u status=%u auth-failed=%d etag=%s signature=%s", in.id, response.status,
       response.auth_failed ? 1 : 0, response.etag.c_str(), response.signature.c_str());
  note(fake, "%.*s", static_cast<int>(response.body.size()), response.body.data());
}

void serve(Fake& fake, std::string_view manner) {
  for (;;) {
    if (ipc_recv(fake.ipc_fd, *fake.in, false) != IpcReceived::Record) return;
    IpcParsed in;
    if (ipc_parse(std::span(fake.in->bytes).first(fake.in->length), in) != 0) {
      note(fake, "malformed record");
      continue;
    }
    switch (MessageType{in.type}) {
      case MessageType::MailConfig: on_mail_config(fake, in); break;
      case MessageType::ApiConfig: on_api_config(fake, in); break;
      case MessageType::MailSend: on_mail(fake, in, manner); break;
      case MessageType::ApiResponse: on_response(fake, in); break;
      default: note(fake, "unexpected type %u", unsigned{in.type});
    }
  }
}

// What the process finds itself with: its user, its limits, and every open descriptor but the
// log's.
void note_surroundings(const Fake& fake, int argc, char** argv) {
  std::string line;
  for (int i = 1; i < argc; ++i) line += std::string(" ") + argv[i];
  note(fake, "start pid=%d uid=%u args=%s", ::getpid(), ::getuid(), line.c_str());
  rlimit core{}, files{};
  int death = 0;
  ::getrlimit(RLIMIT_CORE, &core);
  ::getrlimit(RLIMIT_NOFILE, &files);
  ::prctl(PR_GET_PDEATHSIG, &death);
  char cwd[256] = "";
  note(fake, "at %s with%s%s", ::getcwd(cwd, sizeof cwd), ::getenv("TZ") != nullptr ? " TZ" : "",
       ::getenv("SSLKEYLOGFILE") != nullptr ? " SSLKEYLOGFILE" : "");
  line.clear();
  for (int fd = 0; fd < 64; ++fd) {
    const bool own = fake.log != nullptr && fd == ::fileno(fake.log);
    if (!own && ::fcntl(fd, F_GETFD) >= 0) line += " " + std::to_string(fd);
  }
  note(fake, "limits core=%lu files=%lu/%lu no-new-privs=%d pdeathsig=%d fds=%s",
       static_cast<unsigned long>(core.rlim_max), static_cast<unsigned long>(files.rlim_cur),
       static_cast<unsigned long>(files.rlim_max), ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0), death,
       line.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  Fake fake;
  const char* log = ::getenv("ORV_FAKE_NET_LOG");
  if (log != nullptr && *log != '\0') fake.log = std::fopen(log, "ae");
  note_surroundings(fake, argc, argv);
  const char* named = ::getenv("ORV_FAKE_NET");
  const std::string manner = named != nullptr ? named : "good";
  const auto row = std::find_if(std::begin(kManners), std::end(kManners),
                                [&](const Manner& m) { return manner == m.name; });
  if (row == std::end(kManners)) return 2;  // a test that misspells it must not pass as a good one
  row->start(fake);
  serve(fake, manner);
  note(fake, "end");
  return 0;
}
