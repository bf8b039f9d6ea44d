#include "api/handler.h"

#include <ctime>
#include <new>
#include <utility>

#include "api/router.h"
#include "common/log.h"

namespace orv {
namespace {

constexpr std::size_t kMessageSize = 1024;
constexpr std::string_view kOutOfMemory =
    R"({"error":{"code":"internal","message":"out of memory"}})";

void reply_unavailable(ApiContext& context, const char* why) {
  reply_error(context.reply, 503, "unavailable", "%s", why);
}

// Loads the tokens anew when their file is another one than at the last load. False when they
// cannot be used.
bool tokens_current(ApiContext& context) {
  const FixedText<kMaxPath>& path = context.live.config->api.tokens_file;
  // Read before the file: a change between the two is seen by the next request.
  const FileIdentity identity = file_identity(path.c_str());
  if (context.tokens_state != TokenFileState::NotLoaded && path == context.tokens_path &&
      identity == context.tokens_identity)
    return context.tokens_state == TokenFileState::Loaded;

  // Unless the reading comes to an end, by memory running out half-way too, the next request tries
  // again.
  context.tokens_state = TokenFileState::NotLoaded;
  context.tokens_path = path.view();
  context.tokens_identity = identity;
  char err[kMessageSize];
  const TokensRead result = read_tokens(path.c_str(), context.tokens, err);
  if (result == TokensRead::Faulty) context.tokens_state = TokenFileState::Failed;
  if (result != TokensRead::Ok) {
    // A fault that lasts over many tries is one line.
    const bool is_new = std::exchange(context.tokens_complaint, err) != err;
    if (is_new || result == TokensRead::Faulty)
      log_msg(LogLevel::Error,
              "orv_sched API: %s -- every API request is refused until this is fixed", err);
    return false;
  }
  context.tokens_complaint.clear();
  log_msg(LogLevel::Info, "orv_sched API: %zu token(s) loaded from %s",
          context.tokens.tokens.size(), path.c_str());
  context.tokens_state = TokenFileState::Loaded;
  return true;
}

void refuse(ApiContext& context, const ApiRequest& request, AuthResult result,
            ApiResponse& response) {
  const char* text = auth_result_text(result);
  // The credentials were good: neither a line of refusal nor a mark against the client's address.
  if (result == AuthResult::TooManyRequests) return reply_unavailable(context, text);
  log_msg(LogLevel::Warn, "orv_sched API: %s %s from %s refused: %s", request.method.c_str(),
          request.path.c_str(), request.client.c_str(), text);
  reply_error(context.reply, 401, "unauthorized", "%s", text);
  response.auth_failed = true;
}

void answer(ApiContext& context, std::int64_t now, const ApiRequest& request,
            const ApiToken& token) {
  // Before it is carried out: the log names the client also when the daemon dies of the request.
  if (request.method != "GET")
    log_msg(LogLevel::Info, "orv_sched API: token '%s' from %s: %s %s", token.name.c_str(),
            request.client.c_str(), request.method.c_str(), request.path.c_str());
  try {
    api_route(context.live, context.reply, {request, token.name.view(), token.role, now});
  } catch (const std::bad_alloc&) {
    reply_error(context.reply, 500, "internal", "out of memory");
  }
  if (context.reply.status == 0) reply_error(context.reply, 500, "internal", "no response");
}

void handle(ApiContext& context, std::int64_t now, const ApiRequest& request,
            ApiResponse& response) {
  ApiReply& reply = context.reply;
  reply.reset();
  Authenticated auth;
  if (!context.live.config->api.enabled) {
    reply_unavailable(context, "the API is disabled");
  } else if (!tokens_current(context)) {
    reply_unavailable(context, "the API's token file cannot be used (see the server log)");
  } else if (const AuthResult result =
                 authenticate(context.tokens, context.nonces, now, request, auth);
             result != AuthResult::Ok) {
    refuse(context, request, result, response);
  } else {
    answer(context, now, request, *auth.token);
  }
  response.status = reply.status;
  response.body = reply.body;
  response.etag = reply.etag;
  // Errors are signed, too: a client believes no unsigned reply to a signed request.
  if (auth.is_signed)
    response.signature =
        sign_response(auth.token->secret.view(), auth.nonce.view(), reply.status, reply.body);
}

}  // namespace

void api_handle_request(void* context, const ApiRequest& request, ApiResponse& response) {
  api_handle_request_at(*static_cast<ApiContext*>(context), std::time(nullptr), request, response);
}

void api_handle_request_at(ApiContext& context, std::int64_t now, const ApiRequest& request,
                           ApiResponse& response) {
  response = {};
  try {
    handle(context, now, request, response);
  } catch (const std::bad_alloc&) {
    response = {};
    response.status = 500;
    response.body = kOutOfMemory;
  }
}

}  // namespace orv
