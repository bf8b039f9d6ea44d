#include "api/call.h"

#include "config/config.h"

namespace orv {

bool refuse(ApiCall& call, std::uint32_t status, const char* code, const char* message) {
  reply_error(call.reply, status, code, "%s", message);
  return false;
}

SnapshotPtr snapshot_of(ApiCall& call) {
  char err[kConfigMessageSize];
  SnapshotPtr snapshot = current_snapshot(call.live.config_path, call.live.snapshot, err);
  if (!snapshot) reply_error(call.reply, 500, "config_unreadable", "%s", err);
  return snapshot;
}

const Job* job_of(ApiCall& call, const ConfigSnapshot& snapshot) {
  const Job* const job = find_job(*snapshot.config, call.name());
  if (job == nullptr) reply_no_job(call);
  return job;
}

void reply_no_job(ApiCall& call) {
  reply_error(call.reply, 404, "not_found", "no job named '%s'", call.variables[0].c_str());
}

void write_config_etag(ApiReply& reply, const EntityTag& etag) {
  reply.json.key("config_etag");
  reply.json.string(etag.view());
  reply.etag.set_truncated(etag.view());
}

}  // namespace orv
