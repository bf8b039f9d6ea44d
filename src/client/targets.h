// Which servers a command of orv_api is about: those that options choose from the list, or one that
// options or the environment describe.
#ifndef ORV_CLIENT_TARGETS_H_
#define ORV_CLIENT_TARGETS_H_

#include <string>
#include <vector>

#include "client/arguments.h"
#include "client/session.h"

namespace orv {

struct Targets {
  std::vector<Target> servers;  // in the list's order
  bool several = false;         // replies are told apart by name: --all, or more than one name
};

// Chooses them. Empty; or one line about what is wrong, and nothing may be sent. A server of the
// list whose token cannot be used is no fault: it says so itself. `all_by_default`: without a
// choice all of the list are meant.
[[nodiscard]] std::string choose_targets(const Arguments& given, bool all_by_default, Targets& out);

// The file that holds the list: --servers, or the default.
[[nodiscard]] std::string server_list_path(const Arguments& given);

}  // namespace orv

#endif  // ORV_CLIENT_TARGETS_H_
