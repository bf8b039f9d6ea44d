#include "client/session.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstdio>
#include <utility>

#include "client/output.h"

namespace orv {
namespace {

namespace asio = boost::asio;

// Well above what a reply of 65,536 bytes can hold of the API's objects, and low enough that the
// search for equal keys stays short.
constexpr JsonLimits kReplyLimits{kMaxReplyBody, 8, 16384};
constexpr int kAttempts = 3;  // at what meets a configuration that was changed in the meantime

std::string text_of(const JsonValue* object, std::string_view key) {
  const auto text = json_string(json_member(object, key));
  return text ? std::string(*text) : "?";
}

// An object with an empty array "jobs".
JsonReply empty_job_list() {
  auto object = std::make_unique<JsonValue>();
  object->kind = JsonKind::Object;
  object->keys.emplace_back("jobs");
  object->values.emplace_back(std::make_unique<JsonValue>())->kind = JsonKind::Array;
  return object;
}

// Moves the jobs of a page to the end of the list.
void move_jobs(JsonValue& page, JsonValue& list) {
  auto& jobs = list.values.front()->values;
  for (std::size_t i = 0; i < page.keys.size(); ++i) {
    if (page.keys[i] != "jobs" || page.values[i]->kind != JsonKind::Array) continue;
    for (auto& job : page.values[i]->values) jobs.push_back(std::move(job));
  }
}

// Ends the program when what it shows cannot be written: it might follow a log for hours in vain.
void flush_or_end() {
  constexpr int kWritten = -1;
  if (const int status = flush_output(kWritten); status != kWritten) ::_exit(status);
}

}  // namespace

int flush_output(int status) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  // The reader has seen enough, as head(1) does.
  if (errno == EPIPE) return kExitDone;
  std::fprintf(stderr, "orv_api: cannot write: %s\n", ::strerror(errno));
  return kExitNoConnection;
}

Session::Session(asio::any_io_executor executor, const Target& target,
                 const SessionOptions& options, Progress& progress)
    : target_(target),
      options_(options),
      progress_(progress),
      executor_(executor),
      connection_(std::move(executor), target.address, target.fingerprint, target.token) {}

Session::Reply Session::request(std::string method, std::string path, std::string query,
                                SecretString body, std::string if_match) {
  ClientRequest wanted;
  wanted.method = std::move(method);
  wanted.path = "/api/v1/" + path;
  wanted.query = std::move(query);
  wanted.body = std::move(body);
  wanted.if_match = std::move(if_match);
  // With several servers it is their number that is shown, and a longer wait has its own words.
  const bool shown = options_.streams && !waits_;
  if (shown) progress_.wait_for("waiting for " + target_.name);
  const ClientReply reply = co_await connection_.exchange(
      std::move(wanted), std::chrono::steady_clock::now() + options_.timeout);
  if (shown) progress_.done();
  co_return take_reply(reply);
}

Session::Reply Session::get(std::string path, std::string query) {
  return request("GET", std::move(path), std::move(query));
}

JsonReply Session::take_reply(const ClientReply& reply) {
  switch (reply.kind) {
    case ReplyKind::Unreachable:
      fail(kExitNoConnection, "unreachable", reply.error);
      return nullptr;
    case ReplyKind::NotTrusted: fail(kExitNotTrusted, "not_trusted", reply.error); return nullptr;
    case ReplyKind::NotSent: fail(kExitUsage, "not_sent", reply.error); return nullptr;
    case ReplyKind::Signed:
    case ReplyKind::Unsigned: break;
  }
  // A signed reply is the scheduler's, an unsigned one anybody's: both are read with the same care.
  // What is no JSON object is some other program's, and so no answer.
  JsonReply root;
  std::array<char, 256> err{};
  if (json_parse(reply.body, kReplyLimits, root, err) != 0 || root->kind != JsonKind::Object) {
    fail(
        kExitNoConnection, "unreachable",
        "no answer from the server: the answer (" + std::to_string(reply.status) + ") is not JSON");
    return nullptr;
  }
  if (reply.status < 400) return root;
  const JsonValue* const error = json_member(root.get(), "error");
  const std::string code = text_of(error, "code"), message = text_of(error, "message");
  fail(kExitRefused, code,
       std::to_string(reply.status) + " " + code + ": " + message +
           (reply.kind == ReplyKind::Signed ? "" : " (reply not signed)"));
  plain_message_ = message;  // JSON has the code in a member of its own
  http_status_ = reply.status;
  return nullptr;
}

Session::Reply Session::change(std::string method, std::string path, std::string tag,
                               std::string read_path, MakeBody body) {
  for (int attempt = 1;; ++attempt) {
    // The body is made from the same version of the file that the tag names, so that a setting
    // which somebody else changes in between is never put back.
    const JsonReply present = co_await get(read_path);
    if (present == nullptr) co_return nullptr;
    std::string if_match =
        !tag.empty() ? tag : std::string(json_member_text(present.get(), "config_etag"));
    JsonReply reply = co_await request(method, path, {}, body(present.get()), std::move(if_match));
    // A tag that the user gave is a condition of theirs: it is not replaced by a newer one.
    const bool again = http_status_ == 412 && tag.empty() && attempt < kAttempts;
    if (reply != nullptr || !again) co_return reply;
    forget_failure();
  }
}

Session::Reply Session::all_jobs() {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    JsonReply all = empty_job_list();
    // Pages of two versions of the file must not be mixed: jobs could be missing or come twice.
    std::string tag;
    std::optional<std::int64_t> offset = 0;
    bool changed = false;
    while (offset && !changed) {
      const JsonReply page = co_await get(
          "jobs", "offset=" + std::to_string(*offset) + "&limit=" + std::to_string(page_));
      if (page == nullptr && code_ == "internal" && page_ > 1) {
        // Jobs with very long settings may not fit into one reply: then fewer at once.
        forget_failure();
        page_ /= 2;
        continue;
      }
      if (page == nullptr) co_return nullptr;
      const std::string now(json_member_text(page.get(), "config_etag"));
      changed = !tag.empty() && tag != now;
      tag = now;
      const std::optional<std::int64_t> before = offset;
      offset = json_integer(json_member(page.get(), "next_offset"));
      // A server that counts backwards would be asked for ever.
      if (offset && *offset <= *before) offset.reset();
      move_jobs(*page, *all);
    }
    if (!changed) co_return all;
  }
  fail(kExitRefused, "changing", "the configuration keeps changing");
  co_return nullptr;
}

void Session::print(std::string_view text) {
  if (options_.json) return;
  if (!options_.streams) {
    kept_text_ += text;
    return;
  }
  // The line of progress and the text may share a terminal. Each piece goes out at once: who
  // follows a log wants to see it grow.
  progress_.clear();
  std::fwrite(text.data(), 1, text.size(), stdout);
  flush_or_end();
}

void Session::show(const JsonValue* reply, const std::function<std::string()>& text) {
  // Several servers make one JSON array, which is complete only when the last has answered.
  if (!options_.json) {
    print(text());
  } else if (!options_.streams) {
    kept_json_.push_back(json_text(reply, Layout::OneLine));
  } else {
    std::printf("%s\n", json_text(reply, Layout::Indented).c_str());
  }
}

void Session::show_line(const JsonValue* reply) {
  // One line each, so that a script can take the pieces apart while they come.
  SecretString line = json_text(reply, Layout::OneLine);
  if (!options_.streams) {
    kept_json_.push_back(std::move(line));
    return;
  }
  std::printf("%s\n", line.c_str());
  flush_or_end();
}

int Session::fail(int status, std::string_view code, std::string message) {
  status_ = status;
  code_ = code;
  plain_message_ = message;
  message_ = std::move(message);
  return status;
}

void Session::forget_failure() {
  status_ = kExitDone;
  http_status_ = 0;
  code_.clear();
  message_.clear();
}

void Session::wait_for(std::string what) {
  waits_ = !what.empty();
  if (!options_.streams) return;
  if (waits_) {
    progress_.wait_for(std::move(what));
  } else {
    progress_.done();
  }
}

asio::awaitable<void> Session::pause(std::chrono::milliseconds time) const {
  asio::steady_timer timer(executor_, time);
  boost::system::error_code ignored;
  co_await timer.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
}

SecretString Session::failure_json() const {
  SecretString text;
  if (message_.empty()) return text;
  text = "{\"code\": ";
  text += json_quoted(code_);
  text += ", \"message\": ";
  text += json_quoted(plain_message_);
  text += '}';
  return text;
}

}  // namespace orv
