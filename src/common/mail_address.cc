#include "common/mail_address.h"

#include <algorithm>

namespace orv {

bool check_mail_address(std::string_view text) {
  if (text.empty() || text.size() > kMaxMailAddress) return false;
  // Bytes above 127 pass: whether the server takes them shows when it is asked.
  const bool printable = std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte > 0x20 && byte != 0x7F;
  });
  if (!printable || text.find_first_of("<>,;\\\"()") != std::string_view::npos) return false;
  const std::size_t at = text.find('@');
  return at != std::string_view::npos && at > 0 && at + 1 < text.size() && at == text.rfind('@');
}

}  // namespace orv
