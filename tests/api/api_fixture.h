// A daemon's state over files of a temporary directory, and requests sent to it through the router.
#ifndef ORV_TESTS_API_API_FIXTURE_H_
#define ORV_TESTS_API_API_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "api/router.h"
#include "common/scoped_fd.h"
#include "json/json.h"
#include "support/support.h"

namespace orv::test {

struct Answer {
  std::uint32_t status = 0;
  std::string body;
  std::string etag;
  std::shared_ptr<JsonValue> json;

  // The member at a path of keys and indexes as "jobs/0/name"; null when there is none.
  [[nodiscard]] const JsonValue* at(std::string_view path) const;
  [[nodiscard]] std::string text(std::string_view path) const;     // "(none)" when it is no string
  [[nodiscard]] std::int64_t number(std::string_view path) const;  // -99 when it is no integer
  // "<status> <code>: <message>" of an error, "<status>" of anything else.
  [[nodiscard]] std::string verdict() const;
};

class ApiFixture : public ::testing::Test {
 protected:
  static constexpr std::int64_t kNow = 1800000000;

  ApiFixture();
  // Writes the configuration and has the daemon load it.
  void load(std::string_view config);
  [[nodiscard]] std::string config_text() const { return read_file(live.config_path); }
  [[nodiscard]] std::string tag();  // of the file now

  Answer send(std::string_view method, std::string_view path, std::string_view body = {},
              std::string_view if_match = {}, TokenRole role = TokenRole::Admin);
  Answer get(std::string_view path) { return send("GET", path, {}, {}, TokenRole::Read); }
  // A change with the present tag.
  Answer change(std::string_view method, std::string_view path, std::string_view body = {}) {
    return send(method, path, body, tag());
  }
  Answer put_job(std::string_view name, std::string_view body) {
    return change("PUT", "jobs/" + std::string(name), body);
  }

  // Puts the test in the place of the network process; next_mail() is what it was handed, as
  // "<subject>\n\n<body>", empty when nothing was.
  void connect_network_process();
  std::string next_mail();

  TempDir dir;
  LiveState live;
  ApiReply reply;
  ScopedFd network_end;
};

}  // namespace orv::test

#endif  // ORV_TESTS_API_API_FIXTURE_H_
