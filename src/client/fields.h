// The settings that a command line of orv_api names, as the members of a JSON body.
#ifndef ORV_CLIENT_FIELDS_H_
#define ORV_CLIENT_FIELDS_H_

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/secret.h"

namespace orv {

struct BodyMember {
  std::string name;
  SecretString json;  // the value: one of them may be a password
};
using BodyMembers = std::vector<BodyMember>;

// Reads field=value words, on top of what a JSON object in a file says ("-": standard input; empty:
// no file). An empty value is null, which removes the setting, or an empty list. 0; -1 with one
// message: a word or a value is malformed, the file cannot be read, or a password stands on the
// command line, whose value the message does not repeat.
[[nodiscard]] int read_members(std::span<const std::string> words, const std::string& file,
                               BodyMembers& out, std::span<char> err);

// The member of that name, or null. Borrowed.
[[nodiscard]] const BodyMember* find_member(const BodyMembers& members, std::string_view name);

// Gives the member its value, in place of the one that it has.
void set_member(BodyMembers& members, std::string_view name, SecretString json);

// The object of all members.
[[nodiscard]] SecretString object_text(const BodyMembers& members);

}  // namespace orv

#endif  // ORV_CLIENT_FIELDS_H_
