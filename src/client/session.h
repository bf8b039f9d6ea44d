// One server while a command of orv_api talks to it: requests whose failures are worded once, and
// what is to be shown of it.
#ifndef ORV_CLIENT_SESSION_H_
#define ORV_CLIENT_SESSION_H_

#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/connection.h"
#include "client/progress.h"
#include "common/secret.h"
#include "json/json.h"

namespace orv {

// Exit statuses of orv_api.
inline constexpr int kExitDone = 0;
inline constexpr int kExitRefused = 1;       // by the server, or a test mail was not sent
inline constexpr int kExitUsage = 2;         // wrong usage; a list or a token that cannot be used
inline constexpr int kExitNoConnection = 3;  // no connection or answer; output cannot be written
inline constexpr int kExitNotTrusted = 4;    // another certificate, or a wrong signature
inline constexpr int kExitNotValid = 5;      // 'validate' found the job not valid
inline constexpr int kExitRunFailed = 6;     // the run that was followed failed or was lost
inline constexpr int kExitRunStopped = 7;  // it was cancelled, timed out or taken out of the queue
inline constexpr int kExitRunBusy = 8;     // its tool was busy; the job is tried again
inline constexpr int kExitInterrupted = 130;  // Ctrl-C

// Flushes standard output. `status` when all could be written. Otherwise the exit status to end
// with: kExitDone when nobody reads any more, which is no failure, or kExitNoConnection after a
// complaint.
[[nodiscard]] int flush_output(int status);

// The server as the command line or the list names it. `error` says why it cannot be asked.
struct Target {
  std::string name;  // of the list, or the address
  ServerAddress address;
  Sha256Digest fingerprint{};
  ClientTokenPtr token;
  std::string error;  // one line; empty: it can be asked
};

struct SessionOptions {
  std::chrono::milliseconds timeout{30'000};  // of each exchange
  bool json = false;                          // replies are shown as JSON
  bool streams = true;  // what is shown goes out at once; else it is kept for the end
};

using JsonReply = std::unique_ptr<JsonValue>;

// A command's requests and its output. Requests return null after a failure, which is then kept
// here: the command ends with `co_return session.failed()`.
class Session {
 public:
  Session(boost::asio::any_io_executor executor, const Target& target,
          const SessionOptions& options, Progress& progress);

  using Reply = boost::asio::awaitable<JsonReply>;
  // A signed request; `path` is relative to /api/v1/.
  [[nodiscard]] Reply request(std::string method, std::string path, std::string query = {},
                              SecretString body = {}, std::string if_match = {});
  [[nodiscard]] Reply get(std::string path, std::string query = {});

  // A change of the configuration: `tag` names the one that it is for. Without a tag it is for the
  // present one, and when that changes in between, for the next, three times in all. `body` makes
  // the body from the present settings at `read_path`, which also give the tag.
  using MakeBody = std::function<SecretString(const JsonValue* present)>;
  [[nodiscard]] Reply change(std::string method, std::string path, std::string tag,
                             std::string read_path, MakeBody body);

  // Every job, page after page: {"jobs":[...]}. Starts over when the configuration changes.
  [[nodiscard]] Reply all_jobs();

  // Text that is made printable already; nothing with JSON.
  void print(std::string_view text);
  // The reply: as JSON, or as `text` makes it.
  void show(const JsonValue* reply, const std::function<std::string()>& text);
  // One more piece of JSON in a line of its own.
  void show_line(const JsonValue* reply);

  // Records a failure; the exit status.
  int fail(int status, std::string_view code, std::string message);
  [[nodiscard]] int failed() const { return status_; }
  [[nodiscard]] bool refused_with(std::string_view code) const { return code_ == code; }
  [[nodiscard]] int http_status() const { return http_status_; }
  void forget_failure();

  [[nodiscard]] const Target& target() const { return target_; }
  [[nodiscard]] const SessionOptions& options() const { return options_; }
  // What the terminal says while the command waits for something longer than one reply; empty: it
  // no longer does. And what an interrupt is answered with.
  void wait_for(std::string what);
  void set_interrupt_note(std::string note) { progress_.set_interrupt_note(std::move(note)); }
  [[nodiscard]] boost::asio::awaitable<void> pause(std::chrono::milliseconds time) const;

  // The row of a table over all servers.
  void set_row(std::vector<std::string> row) { row_ = std::move(row); }
  [[nodiscard]] const std::vector<std::string>& row() const { return row_; }

  // Gives its place at the server free.
  void close() { connection_.close(); }

  // What is left for the end: text, JSON values, and the failure as a line and as an object of the
  // API's shape, {"code":...,"message":...}. Empty when there is none.
  [[nodiscard]] const std::string& kept_text() const { return kept_text_; }
  [[nodiscard]] const std::vector<SecretString>& kept_json() const { return kept_json_; }
  [[nodiscard]] const std::string& failure() const { return message_; }
  [[nodiscard]] SecretString failure_json() const;

 private:
  JsonReply take_reply(const ClientReply& reply);

  const Target& target_;
  SessionOptions options_;
  Progress& progress_;
  boost::asio::any_io_executor executor_;
  ApiConnection connection_;
  std::vector<std::string> row_;
  std::string kept_text_;
  std::vector<SecretString> kept_json_;
  bool waits_ = false;  // see wait_for()
  int status_ = kExitDone;
  int http_status_ = 0;  // of a refusal
  std::string code_, message_, plain_message_;
  int page_ = 50;  // jobs asked for at once
};

}  // namespace orv

#endif  // ORV_CLIENT_SESSION_H_
