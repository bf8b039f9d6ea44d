#include "netproc/http_message.h"

#include <gtest/gtest.h>

namespace orv {
namespace {

TEST(HttpHead, BecomesARequestOrTheErrorToAnswer) {
  const std::string long_path = "/" + std::string(2047, 'a'), long_query(1024, 'q');
  const std::string key(512, 'k'), tag(128, 't');
  const struct {
    HttpHead head;
    std::uint32_t status;  // 0: accepted
    std::string path, query;
  } kCases[] = {
      {{"GET", "/api/v1/info", "", "", false}, 0, "/api/v1/info", ""},
      {{"PUT", "/a?b=c?d", "", "", false}, 0, "/a", "b=c?d"},
      {{"POST", "HTTPS://host:1/a", "", "", false}, 0, "/a", ""},
      {{"PATCH", "/", "", "", false}, 405, "", ""},
      {{"get", "/", "", "", false}, 405, "", ""},
      {{"GET", "*", "", "", false}, 400, "", ""},
      {{"GET", "https://host", "", "", false}, 400, "", ""},
      {{"GET", "/a#b", "", "", false}, 400, "", ""},
      {{"GET", "/\xC3\xBC", "", "", false}, 400, "", ""},
      {{"GET", "/", "a\tb", "", false}, 400, "", ""},
      {{"GET", "/", "", "", true}, 400, "", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.head.target);
    ApiRequest request;
    const HttpError* error = http_map_head(c.head, request);
    EXPECT_EQ(error == nullptr ? 0 : error->status, c.status);
    if (c.status != 0) continue;
    EXPECT_EQ(request.method, c.head.method);
    EXPECT_EQ(request.path, c.path);
    EXPECT_EQ(request.query, c.query);
  }
  ApiRequest request;
  EXPECT_EQ(http_map_head({"GET", long_path + "?" + long_query, key, tag, false}, request),
            nullptr);
  for (const auto& [target, auth, match, status] : {std::tuple{long_path + "a", key, tag, 414U},
                                                    {long_path + "?q" + long_query, key, tag, 414U},
                                                    {long_path, key + "k", tag, 431U},
                                                    {long_path, key, tag + "t", 431U}}) {
    const HttpError* error = http_map_head({"GET", target, auth, match, false}, request);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->status, status);
  }
}

}  // namespace
}  // namespace orv
