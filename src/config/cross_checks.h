// What only the whole file shows: required and contradicting settings, references between jobs.
#ifndef ORV_CONFIG_CROSS_CHECKS_H_
#define ORV_CONFIG_CROSS_CHECKS_H_

#include <span>
#include <string_view>

#include "config/config.h"

namespace orv {

// Completes [mail] (port, timeout, and the password that the reference `written_password` points
// to) and checks the loaded file. False with the message of the first fault.
[[nodiscard]] bool cross_check(Config& config, std::string_view written_password,
                               std::span<char> err);

}  // namespace orv

#endif  // ORV_CONFIG_CROSS_CHECKS_H_
