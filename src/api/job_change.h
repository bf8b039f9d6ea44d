// One job definition on its way from a request's body into the text of the configuration file, with
// the rules of [api] on what may be changed.
#ifndef ORV_API_JOB_CHANGE_H_
#define ORV_API_JOB_CHANGE_H_

#include <optional>
#include <string_view>

#include "api/call.h"
#include "common/secret.h"
#include "config/snapshot.h"
#include "json/json.h"

namespace orv {

// Whether a job of this name may be created or changed through the API; else the reply is 400.
[[nodiscard]] bool check_job_name(ApiCall& call, std::string_view name);

// The file's text with the job `name` as the body defines it: created when `existing` is null, else
// that job with the body's fields changed; lines of fields that the body does not have stay, with
// their comments and spacing. Nothing after an error reply: a bad field (400), a command outside
// [api] allowed-commands or arguments without allow-args (403). Whether the text loads is for the
// caller to find out.
[[nodiscard]] std::optional<SecretString> changed_job_text(ApiCall& call,
                                                           const ConfigSnapshot& snapshot,
                                                           std::string_view name,
                                                           const Job* existing,
                                                           const JsonValue& body);

}  // namespace orv

#endif  // ORV_API_JOB_CHANGE_H_
