// What every change of the configuration through the API goes through: the client's tag, the
// replacement of the file, and telling the daemon, the log and the administrators.
#ifndef ORV_API_COMMIT_H_
#define ORV_API_COMMIT_H_

#include <string>
#include <string_view>

#include "api/endpoints.h"
#include "api/snapshot.h"
#include "common/secret.h"

namespace orv {

// A text of the configuration file in the making: it may hold the SMTP password.
struct DraftText {
  DraftText() = default;
  DraftText(const DraftText&) = delete;
  DraftText& operator=(const DraftText&) = delete;
  ~DraftText() { wipe_text(text); }
  std::string text;
};

// Takes the snapshot that a change starts from and compares the client's If-Match with its tag.
// False after an error reply (500, 428, 412).
[[nodiscard]] bool check_if_match(ApiCall& call, const ConfigSnapshot& snapshot);

// Proves that the text loads, writing nothing. False after the error reply that a commit would
// make.
[[nodiscard]] bool validate_change(ApiCall& call, const DraftText& draft);

// Replaces the file by the text, tells the daemon to load it, logs the change and sends the change
// mail. `etag` is the new text's. False after an error reply, nothing changed.
[[nodiscard]] bool commit_change(ApiCall& call, const ConfigSnapshot& before,
                                 const DraftText& draft, std::string_view description,
                                 EntityTag& etag);

// The reply of a change that reports nothing but the new tag.
void reply_changed(ApiCall& call, const EntityTag& etag);

}  // namespace orv

#endif  // ORV_API_COMMIT_H_
