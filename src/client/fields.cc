#include "client/fields.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "client/output.h"
#include "common/files.h"
#include "common/message.h"
#include "common/text.h"
#include "json/json.h"

namespace orv {
namespace {

// How the value of a field is read; every other field is text.
enum class Form { Text, YesNo, Number, List };
struct FieldForm {
  std::string_view name;
  Form form;
};
// clang-format off
constexpr FieldForm kForms[] = {
    {"enabled", Form::YesNo}, {"run_background", Form::YesNo}, {"start_background", Form::YesNo},
    {"timeout_seconds", Form::Number}, {"smtp_port", Form::Number},
    {"poll_interval", Form::Number}, {"busy_retry_seconds", Form::Number},
    {"job_timeout_seconds", Form::Number}, {"job_log_keep", Form::Number},
    {"after", Form::List}, {"to", Form::List},
};
// clang-format on
// More than any limit of the API has, and still an integer to every reader of JSON.
constexpr std::size_t kMaxDigits = 12;

Form form_of(std::string_view name) {
  const auto* const found = std::find_if(std::begin(kForms), std::end(kForms),
                                         [&](const FieldForm& row) { return row.name == name; });
  return found != std::end(kForms) ? found->form : Form::Text;
}

SecretString list_json(std::string_view value) {
  SecretString json = "[";
  std::string_view item;
  // Blanks around an item are of the command line, not of a name.
  while (next_list_item(value, item)) {
    if (json.size() > 1) json += ',';
    json += json_quoted(trim(item));
  }
  json += ']';
  return json;
}

int value_json(const std::string& name, std::string_view value, SecretString& json,
               std::span<char> err) {
  // An unknown name is sent as text: which fields there are, and what they take, the server
  // decides.
  const Form form = form_of(name);
  if (form == Form::List) {
    json = list_json(value);
  } else if (value.empty()) {
    json = "null";
  } else if (form == Form::YesNo) {
    const bool yes = value == "yes" || value == "true";
    if (!yes && value != "no" && value != "false") {
      return fail(err, "'%s' must be yes or no", name.c_str());
    }
    json = yes ? "true" : "false";
  } else if (form == Form::Number) {
    if (value.size() > kMaxDigits || !std::all_of(value.begin(), value.end(), is_digit)) {
      return fail(err, "'%s' must be a number, 0 or more", name.c_str());
    }
    // JSON knows no leading zeros.
    const std::size_t zeros = std::min(value.find_first_not_of('0'), value.size() - 1);
    json = value.substr(zeros);
  } else {
    json = json_quoted(value);
  }
  return 0;
}

int read_word(const std::string& word, BodyMembers& out, std::span<char> err) {
  const std::size_t equals = word.find('=');
  if (equals == std::string::npos || equals == 0) {
    return fail(err, "'%s' is not <field>=<value>", word.c_str());
  }
  const std::string name = word.substr(0, equals);
  const std::string_view value = std::string_view(word).substr(equals + 1);
  // Also under a name that no field has: whoever mistypes it means a password all the same.
  if (name.find("password") != std::string::npos && !value.empty()) {
    return fail(err,
                "a command line is for everybody's eyes: give smtp_password in a JSON object, "
                "--file FILE (or -)");
  }
  SecretString json;
  if (value_json(name, value, json, err) != 0) return -1;
  set_member(out, name, std::move(json));
  return 0;
}

int read_file(const std::string& file, BodyMembers& out, std::span<char> err) {
  // Standard input is duplicated, because the owner closes what it holds.
  const ScopedFd opened = file == "-" ? ScopedFd(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3))
                                      : open_file(file.c_str(), O_RDONLY | O_NOCTTY);
  SecretString text;
  if (!opened.valid() ||
      read_whole(opened.get(), kJsonRequestLimits.max_bytes, text) != ErrorCode::Ok) {
    return fail(err, "cannot read %s: %s", file.c_str(), ::strerror(errno));
  }
  std::unique_ptr<JsonValue> root;
  std::array<char, 256> fault{};
  if (json_parse(text, kJsonRequestLimits, root, fault) != 0) {
    return fail(err, "cannot read %s: %s", file.c_str(), fault.data());
  }
  if (root->kind != JsonKind::Object) {
    return fail(err, "%s does not hold a JSON object", file.c_str());
  }
  for (std::size_t i = 0; i < root->keys.size(); ++i) {
    set_member(out, root->keys[i], json_text(root->values[i].get(), Layout::OneLine));
  }
  return 0;
}

}  // namespace

int read_members(std::span<const std::string> words, const std::string& file, BodyMembers& out,
                 std::span<char> err) {
  if (!file.empty() && read_file(file, out, err) != 0) return -1;
  // After the file, so that a word wins over it.
  for (const std::string& word : words) {
    if (read_word(word, out, err) != 0) return -1;
  }
  return 0;
}

const BodyMember* find_member(const BodyMembers& members, std::string_view name) {
  const auto found = std::find_if(members.begin(), members.end(),
                                  [&](const BodyMember& member) { return member.name == name; });
  return found != members.end() ? &*found : nullptr;
}

void set_member(BodyMembers& members, std::string_view name, SecretString json) {
  for (BodyMember& member : members) {
    if (member.name != name) continue;
    member.json = std::move(json);
    return;
  }
  members.push_back({std::string(name), std::move(json)});
}

SecretString object_text(const BodyMembers& members) {
  SecretString text = "{";
  for (const BodyMember& member : members) {
    if (text.size() > 1) text += ',';
    text += json_quoted(member.name);
    text += ':';
    text += member.json;
  }
  text += '}';
  return text;
}

}  // namespace orv
