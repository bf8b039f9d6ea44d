// Temporary files of processes that were killed while they wrote. They hold what the file itself
// holds: passwords, token secrets, keys.
#ifndef ORV_API_LEFTOVERS_H_
#define ORV_API_LEFTOVERS_H_

#include <string>

namespace orv {

// Each removes the files of its kind whose process is gone. Errors are ignored: a leftover does no
// harm but by being there.
void remove_config_leftovers(const std::string& config_path);  // of the file and of its history
void remove_tokens_leftovers(const std::string& tokens_path);
void remove_pair_leftovers(const std::string& cert_path, const std::string& key_path);

}  // namespace orv

#endif  // ORV_API_LEFTOVERS_H_
