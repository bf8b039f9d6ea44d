#include "api/reply.h"

#include <gtest/gtest.h>

#include <string>

namespace orv {
namespace {

class Reply : public testing::Test {
 protected:
  void SetUp() override { reply_.reset(); }
  void expect_error(std::uint32_t status, const std::string& code, const std::string& message) {
    EXPECT_EQ(reply_.status, status);
    EXPECT_EQ(reply_.body, R"({"error":{"code":")" + code + R"(","message":")" + message + "\"}}");
    reply_.reset();
  }
  std::unique_ptr<JsonValue> object(std::string_view body) {
    std::unique_ptr<JsonValue> root = read_body_object(reply_, body);
    EXPECT_NE(root, nullptr) << reply_.body;
    return root;
  }
  ApiReply reply_;
};

TEST_F(Reply, AnErrorDiscardsWhatWasWritten) {
  reply_.json.begin_object();
  ASSERT_TRUE(reply_.etag.set("\"x\""));
  reply_error(reply_, 404, "not_found", "no job named '%s'", "a\"b");
  EXPECT_TRUE(reply_.etag.empty());
  expect_error(404, "not_found", R"(no job named 'a\"b')");
  reply_error(reply_, 400, "bad_query", "%s", std::string(3000, 'x').c_str());
  expect_error(400, "bad_query", std::string(1023, 'x'));
}

TEST_F(Reply, TheLargestBodyLeavesRoomForTheTerminator) {
  reply_.json.string(std::string(kReplyBufferSize - 3, 'a'));
  reply_finish(reply_, 200);
  EXPECT_EQ(reply_.status, 200U);
  EXPECT_EQ(reply_.body.size(), 61439U);
  reply_.reset();
  reply_.json.string(std::string(kReplyBufferSize - 2, 'a'));
  reply_finish(reply_, 200);
  expect_error(500, "internal", "response too large");
}

TEST_F(Reply, ABodyMustBeAJsonObject) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "a JSON body is required"},
      {"[]", "the body must be a JSON object"},
      {R"({"a":1,"a":2})", "duplicate key at byte 12"},
      {"{}" + std::string(32767, ' '), "document too large"}};
  for (const auto& [body, message] : cases) {
    EXPECT_EQ(read_body_object(reply_, body), nullptr);
    expect_error(400, "invalid_json", message);
  }
}

TEST_F(Reply, OnlyListedFieldsPass) {
  const std::string long_name(101, 'n');
  EXPECT_TRUE(only_known_fields(reply_, *object(R"({"to":1,"timeout":2})"), "to timeout"));
  for (const std::string& key : {std::string("out"), std::string("to timeout"), std::string(),
                                 std::string("To"), std::string("time"), long_name}) {
    const auto root = object("{\"to\":1,\"" + key + "\":0}");
    EXPECT_FALSE(only_known_fields(reply_, *root, "to timeout " + long_name));
    expect_error(400, "unknown_field", "unknown field '" + key.substr(0, 100) + "'");
  }
}

TEST_F(Reply, StringFields) {
  const std::string rule =
      "'f' must be 1..5 characters without control characters or leading/trailing spaces";
  std::string out;
  for (const auto& [body, value] : {std::pair("{}", ""), std::pair(R"({"f":null})", ""),
                                    std::pair(R"({"f":"a \u00e9"})", "a \xc3\xa9")}) {
    out = "old";
    EXPECT_TRUE(read_string_field(reply_, *object(body), "f", 5, out)) << body;
    EXPECT_EQ(out, value);
  }
  for (const char* text : {"123456", "", " a", "a ", "a\\tb", "a\\u007f"}) {
    const auto root = object(std::string(R"({"f":")") + text + "\"}");
    EXPECT_FALSE(read_string_field(reply_, *root, "f", 5, out)) << text;
    expect_error(400, "invalid_value", rule);
  }
  EXPECT_FALSE(read_string_field(reply_, *object(R"({"f":7})"), "f", 5, out));
  expect_error(400, "invalid_value", "'f' must be a string or null");
  EXPECT_FALSE(check_stored_value(std::string(1024, 'a')));
}

TEST_F(Reply, IntegerFields) {
  std::int64_t out = 7;
  for (const auto& [body, value] : {std::pair("{}", -1), std::pair(R"({"f":null})", -1),
                                    std::pair(R"({"f":0})", 0), std::pair(R"({"f":90})", 90)}) {
    EXPECT_TRUE(read_integer_field(reply_, *object(body), "f", 90, out)) << body;
    EXPECT_EQ(out, value);
  }
  for (const char* text : {"91", "-1", "5.0", "\"5\"", "true"}) {
    const auto root = object(std::string("{\"f\":") + text + "}");
    EXPECT_FALSE(read_integer_field(reply_, *root, "f", 90, out)) << text;
    EXPECT_EQ(out, -1);
    expect_error(400, "invalid_value", "'f' must be an integer 0..90 or null");
  }
}

}  // namespace
}  // namespace orv
