// The network process without its start: one event loop between the socket to the scheduler, the
// mail queue and the HTTPS server.
#ifndef ORV_NETPROC_NET_PROCESS_H_
#define ORV_NETPROC_NET_PROCESS_H_

#include "common/scoped_fd.h"
#include "netproc/connection.h"

namespace orv {

// Says HELLO and serves until the scheduler closes its end: 0 then, 1 (logged) when the scheduler
// broke the protocol or a descriptor cannot be used. An empty `listener`: no API. Secrets are wiped
// and all connections are closed on return. smtp_init() must have been called. Mails that were
// handed over get some seconds to be sent; one that is under way then is given up, and `abrupt_end`
// (may be null) is called with the result instead of waiting for that.
[[nodiscard]] int net_process_run(ScopedFd ipc, ScopedFd listener, const HttpsLimits& limits,
                                  void (*abrupt_end)(int result));

}  // namespace orv

#endif  // ORV_NETPROC_NET_PROCESS_H_
