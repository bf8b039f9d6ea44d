// What every change of the configuration through the API goes through: the client's tag, the
// replacement of the file, and telling the daemon, the log and the administrators.
#ifndef ORV_API_COMMIT_H_
#define ORV_API_COMMIT_H_

#include <string_view>

#include "api/call.h"
#include "common/secret.h"
#include "config/snapshot.h"

namespace orv {

// Compares the client's If-Match with the snapshot's tag. False after an error reply (428, 412).
[[nodiscard]] bool check_if_match(ApiCall& call, const ConfigSnapshot& snapshot);

// The snapshot that a change starts from, with the client's tag checked against it; null after an
// error reply (500, 428, 412).
[[nodiscard]] SnapshotPtr begin_change(ApiCall& call);

// Proves that the text loads, writing nothing. False after the error reply that a commit would
// make.
[[nodiscard]] bool validate_change(ApiCall& call, const ConfigSnapshot& before,
                                   std::string_view text);

// Replaces the file by `text`, tells the daemon to load it, logs the change and sends the change
// mail. Returns the new configuration; null after an error reply, nothing changed. A text that is
// the old one is no change: nothing is written, and `before` comes back.
[[nodiscard]] SnapshotPtr commit_change(ApiCall& call, const SnapshotPtr& before, SecretString text,
                                        std::string_view description);

// The reply of a change that reports nothing but the new tag.
void reply_changed(ApiCall& call, const EntityTag& etag);

}  // namespace orv

#endif  // ORV_API_COMMIT_H_
