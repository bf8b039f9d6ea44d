// The commands of orv_api and its usage text.
#include <array>
#include <cstdio>
#include <limits>

#include "client/arguments.h"
#include "client/commands.h"
#include "client/server_list.h"
#include "common/version.h"

namespace orv {
namespace {

constexpr std::array<OptionRow, 10> kCommonOptions = {{
    {"--server", "", true},
    {"--fingerprint", "", true},
    {"--token-file", "", true},
    {"--on", "", true},
    {"--all", "", false},
    {"--servers", "", true},
    {"--timeout", "", true},
    {"--json", "", false},
    {"--help", "-h", false},
    {"--version", "", false},
}};
constexpr OptionRow kFile = {"--file", "", true};
constexpr OptionRow kIfMatch = {"--if-match", "", true};
constexpr std::array<OptionRow, 2> kChangeOptions = {kFile, kIfMatch};
constexpr std::array<OptionRow, 1> kValidateOptions = {kFile};
constexpr std::array<OptionRow, 1> kRunOptions = {{{"--wait", "", false}}};
constexpr std::array<OptionRow, 1> kLogOptions = {{{"--follow", "", false}}};
constexpr std::array<OptionRow, 1> kMailTestOptions = {{{"--wait", "", true}}};
constexpr std::array<OptionRow, 1> kPinOptions = {{{"--name", "", true}}};

constexpr std::array<std::string_view, 3> kJobActions = {"get", "put", "delete"};
constexpr std::array<std::string_view, 2> kSchedActions = {"get", "set"};
constexpr std::array<std::string_view, 3> kMailActions = {"get", "set", "remove"};

// clang-format off
constexpr ApiCommand kCommands[] = {
    {"status", "", {}, 0, 0, false, {}, status_command,
     "one line for each server: what runs, what failed, what comes next"},
    {"info", "", {}, 0, 0, false, {}, info_command,
     "what the server is and what it allows"},
    {"jobs", "", {}, 0, 0, false, {}, jobs_command,
     "all jobs and their states"},
    {"job", "get|put|delete NAME [field=value ...]", kJobActions, 2, 2, true, kChangeOptions,
     job_command, "show, create or change, or delete one job"},
    {"validate", "NAME [field=value ...]", {}, 1, 1, true, kValidateOptions, validate_command,
     "check a job definition without saving it"},
    {"run", "NAME [--wait]", {}, 1, 1, false, kRunOptions, run_command,
     "queue a run of a job; --wait follows it to its end"},
    {"cancel", "NAME", {}, 1, 1, false, {}, cancel_command,
     "stop a running job or take its run out of the queue"},
    {"runs", "NAME", {}, 1, 1, false, {}, runs_command,
     "the last runs of a job, the newest first"},
    {"log", "NAME [ID] [--follow]", {}, 1, 2, false, kLogOptions, log_command,
     "the log of a run, the newest one unless an id is given; --follow until its end"},
    {"sched", "get|set [field=value ...]", kSchedActions, 1, 1, true, kChangeOptions,
     settings_command, "the [sched] settings"},
    {"mail", "get|set|remove [field=value ...]", kMailActions, 1, 1, true, kChangeOptions,
     settings_command, "the [mail] settings"},
    {"mail-test", "[--wait SECONDS]", {}, 0, 0, false, kMailTestOptions, mail_test_command,
     "send a test mail and report its outcome (waits 90 seconds)"},
    {"pin", "HOST[:PORT] --name NAME --token-file FILE", {}, 1, 1, false, kPinOptions, nullptr,
     "show a server's fingerprint and add it to the list"},
};
// clang-format on

constexpr const char* kUsageHead =
    "usage: orv_api [options] COMMAND [words] [options]\n"
    "\n"
    "The command line of the orv_sched configuration API: every request is signed, the "
    "certificate\n"
    "is pinned before anything is sent, and the signature of every reply is checked.\n"
    "\n"
    "commands:\n";

constexpr const char* kUsageTail =
    "\n"
    "which server:\n"
    "  --server HOST[:PORT]   ORV_API_SERVER; port 8447 unless said otherwise\n"
    "  --fingerprint SHA256   ORV_API_FINGERPRINT; of its certificate, as 'orv_sched api-info' "
    "prints it\n"
    "  --token-file FILE      ORV_API_TOKEN_FILE; holds NAME.SECRET, readable by its owner alone\n"
    "                         (or the token itself in ORV_API_TOKEN)\n"
    "  --on NAME[,NAME...]    servers of the list ~/.config/orv/servers\n"
    "  --all                  all servers of the list\n"
    "  --servers FILE         another list\n"
    "\n"
    "options of every command:\n"
    "  --timeout SECONDS      of each request (30)\n"
    "  --json                 print replies, and refusals, as JSON\n"
    "  --help, --version\n"
    "\n"
    "Settings are given as field=value words; an empty value removes the setting. 'job put',\n"
    "'validate', 'sched set' and 'mail set' also take --file FILE, a JSON object of fields (- for\n"
    "standard input), and the changes --if-match TAG, the config_etag that they are for.\n"
    "  orv_api job put nightly command=agent 'schedule=0 1 * * *' after=check,prepare\n"
    "  orv_api job put nightly schedule= once='2027-01-31 04:00:00'\n"
    "\n"
    "Exit status: 0 done; 1 the server refused, or a test mail was not sent; 2 wrong usage; 3 no\n"
    "connection, no answer, or the output cannot be written; 4 the server is not who it should "
    "be;\n"
    "5 'validate' found the job not valid. Of a run that was followed: 6 it failed or was lost; 7 "
    "it\n"
    "was cancelled, timed out or taken out of the queue; 8 its tool was busy. 130 interrupted.\n";

}  // namespace

std::span<const ApiCommand> api_commands() { return kCommands; }

OptionTable common_api_options() { return kCommonOptions; }

std::string usage_text() {
  std::string text =
      std::string("orv_api ") + kVersion + " (build " + kBuild + ")\n\n" + kUsageHead;
  for (const ApiCommand& command : kCommands) {
    text += "  " + std::string(command.name);
    if (!command.words.empty()) text += " " + std::string(command.words);
    text += "\n        " + std::string(command.help) + "\n";
  }
  return text + kUsageTail;
}

}  // namespace orv
