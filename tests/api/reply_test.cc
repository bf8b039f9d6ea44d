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

}  // namespace
}  // namespace orv
