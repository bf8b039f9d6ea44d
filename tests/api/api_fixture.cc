#include "api_fixture.h"

#include <sys/socket.h>

#include <algorithm>

#include "common/text.h"
#include "config/snapshot.h"

namespace orv::test {

const JsonValue* Answer::at(std::string_view path) const {
  const JsonValue* node = json.get();
  while (!path.empty()) {
    const std::size_t slash = std::min(path.find('/'), path.size());
    std::uint32_t index = 0;
    const std::string_view part = path.substr(0, slash);
    node = parse_u32(part, index) ? json_element(node, index) : json_member(node, part);
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return node;
}

std::string Answer::text(std::string_view path) const {
  return std::string(json_string(at(path)).value_or("(none)"));
}

std::int64_t Answer::number(std::string_view path) const {
  return json_integer(at(path)).value_or(-99);
}

std::string Answer::verdict() const {
  std::string out = std::to_string(status);
  if (at("error") != nullptr) out += " " + text("error/code") + ": " + text("error/message");
  return out;
}

ApiFixture::ApiFixture() {
  live.config_path = dir.file("sched.cfg");
  live.queue_path = dir.file("queue.state");
  live.job_log_dir = dir.file("logs");
  live.daemon_started = kNow - 60;
  live.config = std::make_unique<Config>();
}

void ApiFixture::load(std::string_view config) {
  dir.write("sched.cfg", config);
  const auto loaded = std::make_shared<Config>();
  char err[kConfigMessageSize] = "";
  ASSERT_EQ(config_load(live.config_path.c_str(), *loaded, err), 0) << err;
  live.config = loaded;
}

std::string ApiFixture::tag() { return std::string(entity_tag(config_text()).view()); }

Answer ApiFixture::send(std::string_view method, std::string_view path, std::string_view body,
                        std::string_view if_match, TokenRole role) {
  ApiRequest http;
  std::string full(path);
  if (!full.starts_with('/')) full.insert(0, "/api/v1/");
  const std::size_t question = full.find('?');
  http.method.set_truncated(method);
  http.path.set_truncated(full.substr(0, question));
  if (question != std::string::npos) http.query.set_truncated(full.substr(question + 1));
  http.if_match.set_truncated(if_match);
  http.client.set_truncated("192.0.2.7");
  http.body = body;
  api_route(live, reply, {http, "ops", role, kNow});

  Answer answer{reply.status, std::string(reply.body), std::string(reply.etag.view()), nullptr};
  std::unique_ptr<JsonValue> root;
  char err[256] = "";
  std::string shown = answer.body;
  // The reader is the strict one of requests: it takes no NUL, which a log may well hold.
  for (std::size_t at = 0; (at = shown.find("\\u0000", at)) != std::string::npos;)
    shown[at + 5] = '1';
  EXPECT_EQ(json_parse(shown, {}, root, err), 0) << err << " in " << shown.substr(0, 2000);
  answer.json = std::move(root);
  return answer;
}

void ApiFixture::connect_network_process() {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  live.net.child.fd = ScopedFd(ends[0]);
  network_end = ScopedFd(ends[1]);
}

std::string ApiFixture::next_mail() {
  const auto record = std::make_unique<IpcMessage>();
  IpcParsed parsed;
  std::string subject(512, '\0');
  std::string body(65536, '\0');
  char err[256] = "";
  if (ipc_recv(network_end.get(), *record, true) != IpcReceived::Record) return {};
  EXPECT_EQ(ipc_parse({record->bytes.data(), record->length}, parsed), 0);
  EXPECT_EQ(ipc_decode_mail_send(parsed, subject, body, err), 0) << err;
  return std::string(subject.c_str()) + "\n\n" + body.c_str();
}

}  // namespace orv::test
