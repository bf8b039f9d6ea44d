#include "config/secret_reference.h"

#include <fcntl.h>

#include <array>
#include <string>

#include "common/files.h"
#include "common/message.h"
#include "common/secret.h"

namespace orv {
namespace {

constexpr std::size_t kMaxSecretFileHead = 127;  // bytes of a secret's file that are read

bool read_secret_file(std::string_view path, FixedSecret<kMaxSecret>& out) {
  if (path.find('\0') != std::string_view::npos) return false;
  std::array<char, kMaxSecretFileHead> head{};
  const ScopedWipe wipe(head.data(), head.size());
  // A fifo that nobody writes to must not block the scheduler.
  const ScopedFd file = open_file(std::string(path).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
  std::size_t size = 0;
  if (!file.valid() || read_up_to(file.get(), head, size) != ErrorCode::Ok) return false;
  std::string_view text(head.data(), size);
  const std::size_t last = text.find_last_not_of(" \t\r\n");
  text = text.substr(0, last == std::string_view::npos ? 0 : last + 1);
  // A NUL byte would silently cut the secret wherever it is used as a C string.
  return !text.empty() && text.find('\0') == std::string_view::npos && out.set(text);
}

}  // namespace

bool parse_secret_reference(std::string_view text, bool literal_allowed, SecretReference& out,
                            std::span<char> err) {
  struct Prefix {
    std::string_view text;
    SecretKind kind;
    const char* nothing_after_it;
  };
  constexpr Prefix kPrefixes[] = {{"file:", SecretKind::File, "file: needs a path"},
                                  {"kms:", SecretKind::Kms, "kms: needs a url"}};
  if (text.empty()) return refuse(err, "empty secret value");
  // With a prefix it is never a literal: a reference without its path must not pass for a password.
  for (const Prefix& prefix : kPrefixes) {
    if (!text.starts_with(prefix.text)) continue;
    if (text == prefix.text) return refuse(err, "%s", prefix.nothing_after_it);
    out = {prefix.kind, text.substr(prefix.text.size())};
    return true;
  }
  if (!literal_allowed) {
    return refuse(
        err,
        "a literal value is not accepted here (visible via /proc/ps) -- use file:<path> or "
        "kms:<url>");
  }
  out = {SecretKind::Literal, text};
  return true;
}

bool read_secret(const SecretReference& reference, FixedSecret<kMaxSecret>& out) {
  switch (reference.kind) {
    case SecretKind::Literal: return !reference.text.empty() && out.set(reference.text);
    case SecretKind::File: return read_secret_file(reference.text, out);
    case SecretKind::Kms: return false;
  }
  return false;
}

}  // namespace orv
