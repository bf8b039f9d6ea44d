// The commands of orv_api that are about one server. Each sends its requests, shows the replies,
// and gives the program's exit status.
#ifndef ORV_CLIENT_COMMANDS_H_
#define ORV_CLIENT_COMMANDS_H_

#include <boost/asio/awaitable.hpp>
#include <string>

#include "client/arguments.h"
#include "client/session.h"

namespace orv {

using CommandResult = boost::asio::awaitable<int>;

[[nodiscard]] CommandResult info_command(Session& session, const Arguments& given);
// Leaves one row of the status table in the session, or its JSON.
[[nodiscard]] CommandResult status_command(Session& session, const Arguments& given);
[[nodiscard]] CommandResult jobs_command(Session& session, const Arguments& given);
[[nodiscard]] CommandResult job_command(Session& session, const Arguments& given);
[[nodiscard]] CommandResult validate_command(Session& session, const Arguments& given);
[[nodiscard]] CommandResult run_command(Session& session, const Arguments& given);
[[nodiscard]] CommandResult cancel_command(Session& session, const Arguments& given);
[[nodiscard]] CommandResult runs_command(Session& session, const Arguments& given);
[[nodiscard]] CommandResult log_command(Session& session, const Arguments& given);
[[nodiscard]] CommandResult settings_command(Session& session, const Arguments& given);
[[nodiscard]] CommandResult mail_test_command(Session& session, const Arguments& given);

// The path of a job below /api/v1/.
[[nodiscard]] std::string job_path(const std::string& name);

// The head of the table that status_command fills.
[[nodiscard]] std::vector<std::string> status_head();

}  // namespace orv

#endif  // ORV_CLIENT_COMMANDS_H_
