#include "common/service_manager.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/clock.h"
#include "common/scoped_fd.h"

namespace orv {
namespace {

constexpr const char* kSocketVariable = "NOTIFY_SOCKET";

// A line end would begin a field of its own.
std::string status_field(std::string_view text) {
  return "STATUS=" + std::string(text.substr(0, text.find('\n')));
}

}  // namespace

ServiceManager::ServiceManager() {
  const char* const path = std::getenv(kSocketVariable);
  // A path, or a name in the abstract namespace. Nothing else is defined.
  if (path == nullptr || (path[0] != '/' && path[0] != '@')) return;
  std::string taken = path;
  (void)::unsetenv(kSocketVariable);  // fails for malformed names only
  if (taken.size() < sizeof sockaddr_un::sun_path) socket_path_ = std::move(taken);
}

void ServiceManager::ready(std::string_view status) const {
  send("READY=1\n" + status_field(status));
}

void ServiceManager::reloading() const {
  // The time tells the manager this reload from an earlier one.
  send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonic_ns() / 1000));
}

void ServiceManager::status(std::string_view text) const { send(status_field(text)); }

void ServiceManager::stopping(std::string_view status) const {
  send("STOPPING=1\n" + status_field(status));
}

void ServiceManager::send(const std::string& message) const {
  if (!present()) return;
  const ScopedFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return;
  const timeval patience{1, 0};
  (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socket_path_.data(), socket_path_.size());
  if (address.sun_path[0] == '@') address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socket_path_.size());
  (void)::sendto(fd.get(), message.data(), message.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address), size);
}

}  // namespace orv
