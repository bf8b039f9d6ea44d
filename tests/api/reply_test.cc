#include "api/reply.h"

#include <gtest/gtest.h>

#include <string>

#include "api/body_fields.h"

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

TEST_F(Reply, TextFields) {
  constexpr BodyField kField{"f", "f", read_text_value, 5};
  const std::string rule =
      "'f' must be 1..5 characters without control characters or leading/trailing spaces";
  const auto read = [&](const std::string& body, std::optional<SecretString>& value) {
    return read_text_value(reply_, *object(body), kField, value);
  };
  std::optional<SecretString> value;
  EXPECT_TRUE(read(R"({"f":null})", value));
  EXPECT_FALSE(value);
  EXPECT_TRUE(read(R"({"f":"a \u00e9"})", value));
  EXPECT_EQ(value, "a \xc3\xa9");
  for (const char* text : {"123456", "", " a", "a ", "a\\tb", "a\\u007f"}) {
    EXPECT_FALSE(read(std::string(R"({"f":")") + text + "\"}", value)) << text;
    expect_error(400, "invalid_value", rule);
  }
  EXPECT_FALSE(read(R"({"f":7})", value));
  expect_error(400, "invalid_value", "'f' must be a string or null");
  EXPECT_FALSE(check_stored_value(std::string(1024, 'a')));
}

TEST_F(Reply, NumberFields) {
  constexpr BodyField kField{"f", "f", read_number_value, 90};
  std::optional<SecretString> value;
  for (const auto& [text, expected] : {std::pair("0", "0"), std::pair("90", "90")}) {
    EXPECT_TRUE(
        read_number_value(reply_, *object(std::string("{\"f\":") + text + "}"), kField, value));
    EXPECT_EQ(value, expected);
  }
  for (const char* text : {"91", "-1", "5.0", "\"5\"", "true"}) {
    const auto root = object(std::string("{\"f\":") + text + "}");
    EXPECT_FALSE(read_number_value(reply_, *root, kField, value)) << text;
    expect_error(400, "invalid_value", "'f' must be an integer 0..90 or null");
  }
}

}  // namespace
}  // namespace orv
