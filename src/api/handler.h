// The API's entry point: keeps the tokens current, authenticates a request, routes it, signs the
// response. Everything that the requests of one daemon share is in its ApiContext.
#ifndef ORV_API_HANDLER_H_
#define ORV_API_HANDLER_H_

#include <cstdint>
#include <string>

#include "api/auth.h"
#include "api/reply.h"
#include "api/tokens.h"
#include "common/files.h"
#include "net/ipc.h"
#include "sched/live_state.h"

namespace orv {

// NotLoaded is also the state after a fault that passes: the next request reads the file again.
enum class TokenFileState : int { NotLoaded = 0, Loaded = 1, Failed = -1 };

// Made once by the daemon; `live` outlives it. Its tokens and nonces are never written to disk by
// it.
struct ApiContext {
  explicit ApiContext(LiveState& live_state) : live(live_state) {}
  LiveState& live;
  TokenStore tokens;
  std::string tokens_path;       // last loaded
  FileIdentity tokens_identity;  // at that load
  TokenFileState tokens_state = TokenFileState::NotLoaded;
  std::string tokens_complaint;  // last logged, empty: none since they could be read
  NonceCache nonces;
  ApiReply reply;
};

// An ApiHandler; `context` is an ApiContext. Answers one request at the current time. The
// response's body lies in the context's reply buffer. Whatever happens, a response is made.
void api_handle_request(void* context, const ApiRequest& request, ApiResponse& response);
// The same at the time `now`.
void api_handle_request_at(ApiContext& context, std::int64_t now, const ApiRequest& request,
                           ApiResponse& response);

}  // namespace orv

#endif  // ORV_API_HANDLER_H_
