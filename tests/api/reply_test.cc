#include "api/reply.h"

#include <gtest/gtest.h>

#include <string>

namespace orv {
namespace {

class Reply : public testing::Test {
 protected:
  void SetUp() override { reply_.reset(); }
  std::string error(const char* code, const std::string& message) {
    return R"({"error":{"code":")" + std::string(code) + R"(","message":")" + message + "\"}}";
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
  reply_.json.key("half");
  ASSERT_TRUE(reply_.etag.set("\"x\""));
  reply_error(reply_, 404, "not_found", "no job named '%s'", "a\"b");
  EXPECT_EQ(reply_.status, 404U);
  EXPECT_EQ(reply_.body, error("not_found", R"(no job named 'a\"b')"));
  EXPECT_TRUE(reply_.etag.empty());
  reply_error(reply_, 400, "bad_query", "%s", std::string(3000, '\x01').c_str());
  std::string cut;
  for (int i = 0; i < 1023; ++i) cut += "\\u0001";
  EXPECT_EQ(reply_.body, error("bad_query", cut));
  reply_.reset();
  EXPECT_EQ(reply_.status, 0U);
  EXPECT_TRUE(reply_.body.empty());
}

TEST_F(Reply, TheLargestBodyLeavesRoomForTheTerminator) {
  reply_.json.string(std::string(kReplyBufferSize - 3, 'a'));
  reply_finish(reply_, 200);
  EXPECT_EQ(reply_.status, 200U);
  EXPECT_EQ(reply_.body.size(), 61439U);
  reply_.reset();
  reply_.json.string(std::string(kReplyBufferSize - 2, 'a'));
  reply_finish(reply_, 200);
  EXPECT_EQ(reply_.status, 500U);
  EXPECT_EQ(reply_.body, error("internal", "response too large"));
}

TEST_F(Reply, ABodyMustBeAJsonObject) {
  const struct {
    std::string body;
    const char* message;
  } cases[] = {
      {"", "a JSON body is required"},
      {"[]", "the body must be a JSON object"},
      {"null", "the body must be a JSON object"},
      {R"({"a":1,"a":2})", "duplicate key at byte 12"},
      {"{\"a\":1}" + std::string(32762, ' '), "document too large"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_EQ(read_body_object(reply_, c.body), nullptr);
    EXPECT_EQ(reply_.status, 400U);
    EXPECT_EQ(reply_.body, error("invalid_json", c.message));
  }
  EXPECT_NE(object("{}" + std::string(32766, ' ')), nullptr);
}

TEST_F(Reply, OnlyListedFieldsPass) {
  const std::string long_name(101, 'n');
  const struct {
    std::string key;
    std::string shown;  // empty: accepted
  } cases[] = {
      {"to", ""}, {"timeout", ""}, {"out", "out"},   {"to timeout", "to timeout"},
      {"", ""},   {"To", "To"},    {"time", "time"}, {long_name, long_name.substr(1)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    const bool refused = !c.shown.empty() || c.key.empty();
    const auto root = object("{\"to\":1,\"x" + c.key + "\":0}");
    root->keys[1] = c.key == "to" ? "timeout" : c.key;
    EXPECT_EQ(only_known_fields(reply_, *root, "to timeout " + long_name), !refused);
    if (!refused) continue;
    EXPECT_EQ(reply_.body, error("unknown_field", "unknown field '" + c.shown + "'"));
  }
}

TEST_F(Reply, StringFields) {
  const char* const kRule =
      "'f' must be 1..5 characters without control characters or leading/trailing spaces";
  const struct {
    const char* body;
    const char* value;
    const char* message;  // null: accepted
  } cases[] = {
      {"{}", "", nullptr},
      {R"({"f":null})", "", nullptr},
      {R"({"f":"12345"})", "12345", nullptr},
      {R"({"f":"a \u00e9"})", "a \xc3\xa9", nullptr},
      {R"({"f":"123456"})", "", kRule},
      {R"({"f":""})", "", kRule},
      {R"({"f":" a"})", "", kRule},
      {R"({"f":"a "})", "", kRule},
      {R"({"f":"a\tb"})", "", kRule},
      {R"({"f":"a\u007f"})", "", kRule},
      {R"({"f":7})", "", "'f' must be a string or null"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    std::string out = "old";
    EXPECT_EQ(read_string_field(reply_, *object(c.body), "f", 5, out), c.message == nullptr);
    EXPECT_EQ(out, c.value);
    if (c.message == nullptr) continue;
    EXPECT_EQ(reply_.body, error("invalid_value", c.message));
  }
  std::string out;
  const auto longest = object("{\"f\":\"" + std::string(1024, 'a') + "\"}");
  EXPECT_FALSE(read_string_field(reply_, *longest, "f", 2000, out));
}

TEST_F(Reply, IntegerFields) {
  const struct {
    const char* body;
    std::int64_t value;
    bool accepted;
  } cases[] = {
      {"{}", -1, true},
      {R"({"f":null})", -1, true},
      {R"({"f":0})", 0, true},
      {R"({"f":90})", 90, true},
      {R"({"f":91})", -1, false},
      {R"({"f":-1})", -1, false},
      {R"({"f":5.0})", -1, false},
      {R"({"f":"5"})", -1, false},
      {R"({"f":true})", -1, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    std::int64_t out = 7;
    EXPECT_EQ(read_integer_field(reply_, *object(c.body), "f", 90, out), c.accepted);
    EXPECT_EQ(out, c.value);
    if (c.accepted) continue;
    EXPECT_EQ(reply_.body, error("invalid_value", "'f' must be an integer 0..90 or null"));
  }
}

}  // namespace
}  // namespace orv
