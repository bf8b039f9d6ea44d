// Configurations as tests write them.
#ifndef ORV_TESTS_SUPPORT_PARSED_H_
#define ORV_TESTS_SUPPORT_PARSED_H_

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string_view>

#include "config/config.h"

namespace orv::test {

// The configuration of this text, which must be valid.
[[nodiscard]] inline std::unique_ptr<Config> parsed(std::string_view text) {
  auto config = std::make_unique<Config>();
  std::array<char, kConfigMessageSize> err{};
  EXPECT_EQ(config_parse(text, "test.cfg", *config, err), 0) << err.data() << " in\n" << text;
  return config;
}

// The schedule of this expression, which must be valid.
[[nodiscard]] inline CronSpec cron(std::string_view text) {
  CronSpec fields;
  std::array<char, 128> err{};
  EXPECT_TRUE(cron_parse(text, fields, err)) << text << ": " << err.data();
  return fields;
}

}  // namespace orv::test

#endif  // ORV_TESTS_SUPPORT_PARSED_H_
