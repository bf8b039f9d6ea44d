// What the files of the supervisor share and nobody else uses.
#ifndef ORV_NET_SUPERVISOR_PARTS_H_
#define ORV_NET_SUPERVISOR_PARTS_H_

#include <memory>

#include "common/secret.h"
#include "net/supervisor.h"

namespace orv::net {

// A record for sending, wiped when it goes: settings, keys and mails pass through it.
class OutgoingRecord {
 public:
  OutgoingRecord() : msg_(std::make_unique_for_overwrite<IpcMessage>()) {}
  OutgoingRecord(const OutgoingRecord&) = delete;
  OutgoingRecord& operator=(const OutgoingRecord&) = delete;
  ~OutgoingRecord() { msg_->wipe(); }
  [[nodiscard]] IpcMessage& message() { return *msg_; }

 private:
  std::unique_ptr<IpcMessage> msg_;
};

// Sends a record whose encoder returned `encoded`, without blocking. Null when it went out, else
// why it did not, for the log.
[[nodiscard]] const char* hand_over(const NetSupervisor& sup, int encoded, const IpcMessage& msg);

// Starts the child and hands it the settings. Needs: no child, no socket. False: nothing was
// started and the reason was logged.
[[nodiscard]] bool start_child(NetSupervisor& sup);

// Hands the [mail] settings to the connected child; a failure is logged.
void send_mail_config(NetSupervisor& sup);

// Replaces the stored mail settings, wiping the old ones.
void store_mail_settings(NetSupervisor& sup, const MailSection& mail);

// Kills and reaps the child without logging, for a change of the settings.
void end_child(NetSupervisor& sup);

// Tries to start the API, or takes over a replaced certificate, when it is time for that.
void look_after_api(NetSupervisor& sup);

// The child is gone: the mails it had not answered are logged and reported as failed.
void give_up_mails(NetSupervisor& sup);

// Serves the child until every mail is answered or kMailGrace has passed; logs what is left.
void finish_mails(NetSupervisor& sup);

// Forgets the API's settings, the private key wiped, and closes the listening socket.
void clear_api(NetSupervisor& sup);

// Reaps the child when it has exited. True when there is none any more.
[[nodiscard]] bool reap(NetSupervisor& sup, int& status);

}  // namespace orv::net

#endif  // ORV_NET_SUPERVISOR_PARTS_H_
