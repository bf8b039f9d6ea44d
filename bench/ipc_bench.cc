// The link to the network process: the codec, and a request's way through a supervisor that waits.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>

#include "net/ipc.h"
#include "net/supervisor.h"

namespace {

using namespace orv;

ApiRequest typical_request() {
  ApiRequest request;
  (void)request.method.set("GET");
  (void)request.path.set("/api/v1/jobs");
  (void)request.query.set("offset=0");
  (void)request.authorization.set("Bearer monitoring." + std::string(43, 'x'));
  (void)request.client.set("192.0.2.10");
  return request;
}

void EncodeAndDecodeRequest(benchmark::State& state) {
  const auto msg = std::make_unique<IpcMessage>();
  const std::string body(static_cast<std::size_t>(state.range(0)), 'b');
  ApiRequest request = typical_request();
  request.body = body;
  ApiRequest out;
  char err[256];
  for (auto _ : state) {
    IpcParsed in;
    const bool ok = ipc_encode_api_request(*msg, 1, request) == 0 &&
                    ipc_parse(std::span(msg->bytes).first(msg->length), in) == 0 &&
                    ipc_decode_api_request(in, out, err) == 0;
    if (!ok) state.SkipWithError("the record did not come back");
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(EncodeAndDecodeRequest)->Arg(0)->Arg(4096)->Arg(32768);

// The child's part is played by this process over a socket pair: what is measured is the supervisor
// (wait, receive, decode, answer) and two trips through the kernel.
void RequestThroughAnIdleSupervisor(benchmark::State& state) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    return state.SkipWithError("no socket pair");
  }
  NetSupervisor sup;
  sup.child.fd.reset(ends[0]);
  const ScopedFd child(ends[1]);
  sup.child.pid = ::fork();
  if (sup.child.pid == 0) {
    for (;;) ::pause();
  }
  sup.api.enabled = true;
  static std::string body;
  body.assign(static_cast<std::size_t>(state.range(0)), 'b');
  sup.api.handler = [](void*, const ApiRequest&, ApiResponse& response) {
    response.status = 200;
    response.body = body;
  };
  const auto request = std::make_unique<IpcMessage>();
  const auto reply = std::make_unique<IpcMessage>();
  (void)ipc_encode_api_request(*request, 1, typical_request());
  for (auto _ : state) {
    const bool sent = ipc_send(child.get(), *request, true) == 0;
    net_wait(sup, 1000);
    if (!sent || ipc_recv(child.get(), *reply, true) != IpcReceived::Record) {
      state.SkipWithError("no answer");
    }
  }
  state.SetItemsProcessed(state.iterations());
  (void)::kill(sup.child.pid, SIGKILL);
  net_shutdown(sup);
}
BENCHMARK(RequestThroughAnIdleSupervisor)->Arg(200)->Arg(61440);

}  // namespace
