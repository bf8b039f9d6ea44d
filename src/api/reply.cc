#include "api/reply.h"

#include <cstdarg>
#include <cstdio>

namespace orv {
namespace {

constexpr std::size_t kMaxErrorMessage = 1023;  // bytes

void write_error(ApiReply& reply, const char* code, const char* message) {
  reply.json.reset();  // what was written so far goes, and with it an overflow
  reply.json.error_object(code, message);
}

}  // namespace

ApiReply::ApiReply() : json(std::span<char>{}) {}

void ApiReply::reset() {
  if (!buffer) {
    buffer = std::make_unique<char[]>(kReplyBufferSize);
    json = JsonWriter({buffer.get(), kReplyBufferSize});
  }
  json.reset();
  status = 0;
  body = {};
  etag.clear();
}

void reply_finish(ApiReply& reply, std::uint32_t status) {
  reply.status = status;
  // Found here once instead of after every write. The tag goes, too: an error shows no
  // configuration.
  if (reply.json.overflow()) {
    reply.status = 500;
    reply.etag.clear();
    write_error(reply, "internal", "response too large");
  }
  reply.body = reply.json.text();
}

void reply_error(ApiReply& reply, std::uint32_t status, const char* code, const char* format, ...) {
  char message[kMaxErrorMessage + 1];
  va_list args;
  va_start(args, format);
  (void)std::vsnprintf(message, sizeof message, format, args);  // a longer message is cut
  va_end(args);
  reply.etag.clear();
  write_error(reply, code, message);
  reply_finish(reply, status);
}

}  // namespace orv
