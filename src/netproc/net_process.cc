#include "netproc/net_process.h"

#include <malloc.h>
#include <unistd.h>

#include <array>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <memory>
#include <string>
#include <utility>

#include "common/log.h"
#include "netproc/https_server.h"
#include "netproc/link.h"
#include "netproc/mail_queue.h"

namespace orv {
namespace {

// Below the time that the scheduler waits for our end before it kills.
constexpr std::chrono::milliseconds kFinishGrace{4500};
constexpr std::chrono::seconds kQuiet{1};

class NetProcess {
 public:
  NetProcess(ScopedFd ipc, const HttpsLimits& limits)
      : link_(
            loop_, std::move(ipc), [this](const IpcParsed& record) { on_record(record); },
            [this](const char* reason) { on_end(reason); }),
        https_(
            loop_, limits,
            [this](std::uint32_t id, const ApiRequest& request) {
              return send_request(id, request);
            },
            [this] { await_quiet(); }),
        mails_(deliver_mail, [this](std::uint32_t id, const SmtpOutcome& outcome) {
          // From the queue's thread: the answer goes out on the loop's.
          boost::asio::post(loop_, [this, id, outcome] { on_mail_done(id, outcome); });
        }) {}

  int run(ScopedFd listener);
  [[nodiscard]] bool mail_under_way() const { return mails_.busy(); }

 private:
  void on_record(const IpcParsed& record);
  void on_mail_config(const IpcParsed& record);
  void on_mail_send(const IpcParsed& record);
  void on_api_config(const IpcParsed& record);
  void on_api_response(const IpcParsed& record);
  void on_end(const char* reason);
  void await_quiet();
  void finish_mails();
  void on_mail_done(std::uint32_t id, const SmtpOutcome& outcome);
  bool send_request(std::uint32_t id, const ApiRequest& request);
  void send_mail_result(std::uint32_t id, const SmtpOutcome& outcome);

  boost::asio::io_context loop_{1};
  int result_ = 0;
  bool has_listener_ = false;
  std::unique_ptr<IpcMessage> out_ = std::make_unique_for_overwrite<IpcMessage>();
  std::array<char, 512> err_{};
  Link link_;
  HttpsServer https_;
  boost::asio::steady_timer quiet_{loop_};
  boost::asio::steady_timer finishing_{loop_};
  bool finishing_begun_ = false;
  MailQueue mails_;  // last: its thread ends before what it answers to
};

int NetProcess::run(ScopedFd listener) {
  has_listener_ = listener.valid();
  // Before HELLO: a process that cannot serve says so by ending, and is started again.
  if (https_.listen_on(std::move(listener), err_) != 0) {
    log_msg(LogLevel::Error, "%s", err_.data());
    return 1;
  }
  (void)ipc_encode_hello(*out_, static_cast<std::uint32_t>(::getpid()));  // always fits
  link_.send(*out_);
  link_.start();
  loop_.run();
  https_.stop();  // here rather than in a destructor: connections refer to what is still alive now
  quiet_.cancel();
  return result_;
}

void NetProcess::on_record(const IpcParsed& record) {
  switch (static_cast<MessageType>(record.type)) {
    case MessageType::MailConfig: return on_mail_config(record);
    case MessageType::MailSend: return on_mail_send(record);
    case MessageType::ApiConfig: return on_api_config(record);
    case MessageType::ApiResponse: return on_api_response(record);
    default: return on_end("the scheduler sent a record of a type that it may not send");
  }
}

void NetProcess::on_mail_config(const IpcParsed& record) {
  auto settings = std::make_shared<IpcMailConfig>();
  if (ipc_decode_mail_config(record, *settings, err_) == 0) {
    return mails_.set_settings(std::move(settings), {});
  }
  // Mails that come are answered with the reason instead of being sent with the settings before.
  log_msg(LogLevel::Error, "%s: no mail", err_.data());
  mails_.set_settings(nullptr, std::string("the [mail] settings were refused: ") + err_.data());
}

void NetProcess::on_mail_send(const IpcParsed& record) {
  std::string subject(record.payload.size() + 1, '\0');  // room for all that may be in the record
  std::string body(record.payload.size() + 1, '\0');
  if (ipc_decode_mail_send(record, subject, body, err_) != 0) {
    return send_mail_result(record.id, {.status = 1, .error = err_.data()});
  }
  mails_.submit({.id = record.id, .subject = subject.c_str(), .body = body.c_str()});
}

void NetProcess::on_api_config(const IpcParsed& record) {
  IpcApiConfig config;
  int rc = ipc_decode_api_config(record, config, err_);
  if (rc == 0) rc = https_.configure(config, err_);
  if (rc != 0) {
    log_msg(LogLevel::Error, "no API: %s", err_.data());
  } else if (!has_listener_) {
    log_msg(LogLevel::Error, "no API: there is no listening socket");
  }
  ipc_release_api_config(config);
}

void NetProcess::on_api_response(const IpcParsed& record) {
  ApiResponse response;
  if (ipc_decode_api_response(record, response, err_) != 0) {
    log_msg(LogLevel::Error, "%s", err_.data());  // the client runs into its time limit
    return;
  }
  https_.answer(record.id, response);
}

void NetProcess::on_end(const char* reason) {
  if (reason != nullptr) {
    log_msg(LogLevel::Error, "%s", reason);
    result_ = 1;
  }
  if (reason != nullptr || !mails_.busy()) return loop_.stop();
  finish_mails();
}

// Clients and mail servers come rarely: what their TLS needed goes back to the system soon after
// the last one, not in between.
void NetProcess::await_quiet() {
  quiet_.expires_after(kQuiet);
  quiet_.async_wait([](const boost::system::error_code& ec) {
    if (!ec) (void)::malloc_trim(0);
  });
}

// The scheduler has gone, or is about to: mails that it handed over are still sent while it waits
// for our end, and no new client is served.
void NetProcess::finish_mails() {
  https_.stop();
  finishing_.expires_after(kFinishGrace);
  finishing_.async_wait([this](const boost::system::error_code&) { loop_.stop(); });
  finishing_begun_ = true;
}

void NetProcess::on_mail_done(std::uint32_t id, const SmtpOutcome& outcome) {
  send_mail_result(id, outcome);
  await_quiet();
  if (finishing_begun_ && !mails_.busy()) loop_.stop();
}

bool NetProcess::send_request(std::uint32_t id, const ApiRequest& request) {
  // A busy link takes no more requests: the clients get a 503 at once instead of waiting in vain.
  if (link_.busy() || ipc_encode_api_request(*out_, id, request) != 0) {
    out_->wipe();
    return false;
  }
  link_.send(*out_);
  return true;
}

void NetProcess::send_mail_result(std::uint32_t id, const SmtpOutcome& outcome) {
  // A result always fits: the encoder cuts its text.
  (void)ipc_encode_mail_result(*out_, id, outcome.status, outcome.error);
  link_.send(*out_);
}

}  // namespace

int net_process_run(ScopedFd ipc, ScopedFd listener, const HttpsLimits& limits,
                    void (*abrupt_end)(int result)) {
  NetProcess process(std::move(ipc), limits);
  const int result = process.run(std::move(listener));
  if (abrupt_end != nullptr && process.mail_under_way()) abrupt_end(result);
  return result;
}

}  // namespace orv
