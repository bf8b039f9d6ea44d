// What the daemon says to the service manager that started it (sd_notify(3), the protocol of
// NOTIFY_SOCKET): ready, what it is doing, that it stops. Without a manager nothing is sent.
#ifndef ORV_COMMON_SERVICE_MANAGER_H_
#define ORV_COMMON_SERVICE_MANAGER_H_

#include <string>
#include <string_view>

namespace orv {

class ServiceManager {
 public:
  // Takes the socket's name out of the environment, where the tools that the daemon starts would
  // find it, too.
  ServiceManager();

  [[nodiscard]] bool present() const { return !socket_path_.empty(); }

  // Start-up is over, or a reload is. `status` is one line for "systemctl status".
  void ready(std::string_view status) const;
  // The configuration is being read again; ready() ends it.
  void reloading() const;
  // What the daemon is doing.
  void status(std::string_view text) const;
  // The daemon is to stop; `status` says what it waits for.
  void stopping(std::string_view status) const;

 private:
  // One message of "NAME=value" lines. Whatever goes wrong is passed over: the manager's view of
  // the daemon is no reason to fail it. A manager that does not read is waited for a second at
  // most.
  void send(const std::string& message) const;

  std::string socket_path_;
};

}  // namespace orv

#endif  // ORV_COMMON_SERVICE_MANAGER_H_
