#include "console/pass_through.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "common/text.h"
#include "json/json.h"

namespace orv {
namespace {

constexpr std::string_view kPrefix = "/api/servers/";
constexpr std::string_view kVersion = "v1/";
// A config_etag is 64 hexadecimal digits in quotes; anything near that fits.
constexpr std::size_t kMaxTag = 128;  // bytes

bool printable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7F; });
}

// Decodes one segment. False when the encoding is broken.
bool decode(std::string_view segment, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < segment.size(); ++i) {
    if (segment[i] != '%') {
      out += segment[i];
      continue;
    }
    if (i + 2 >= segment.size()) return false;
    const int high = hex_digit(segment[i + 1]);
    const int low = hex_digit(segment[i + 2]);
    if (high < 0 || low < 0) return false;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return true;
}

// A segment that means the same to everybody who reads the path.
bool segment_is_plain(std::string_view segment, std::string& decoded) {
  if (!decode(segment, decoded) || decoded.empty() || decoded == "." || decoded == "..") {
    return false;
  }
  return std::none_of(decoded.begin(), decoded.end(), [](char c) {
    return c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
  });
}

bool path_is_plain(std::string_view path) {
  std::string decoded;
  while (true) {
    const std::size_t slash = path.find('/');
    if (!segment_is_plain(path.substr(0, slash), decoded)) return false;
    if (slash == std::string_view::npos) return true;
    path.remove_prefix(slash + 1);
  }
}

// The config_etag of a reply's body; empty when it holds none that fits a header.
std::string etag_of_body(std::string_view body) {
  std::unique_ptr<JsonValue> root;
  std::array<char, 128> ignored{};  // no JSON: no tag
  if (json_parse(body, JsonLimits{}, root, ignored) != 0) return {};
  const auto tag = json_string(json_member(root.get(), "config_etag"));
  const bool fits = tag && tag->size() <= kMaxTag && printable(*tag);
  return fits ? std::string(*tag) : std::string();
}

}  // namespace

bool pass_target_parse(std::string_view target, PassTarget& out, bool& malformed) {
  out = PassTarget{};
  malformed = false;
  if (!target.starts_with(kPrefix)) return false;
  std::string_view rest = target.substr(kPrefix.size());
  const std::size_t mark = rest.find('?');
  const std::string_view query =
      mark == std::string_view::npos ? std::string_view{} : rest.substr(mark + 1);
  rest = rest.substr(0, mark);
  const std::size_t slash = rest.find('/');
  const std::string_view name = rest.substr(0, slash);
  rest.remove_prefix(slash == std::string_view::npos ? rest.size() : slash + 1);
  // Before anything is taken from it: a blank or a line end would end the request line early.
  malformed = !printable(target) || target.find('#') != std::string_view::npos ||
              !segment_is_plain(name, out.server);
  if (malformed) return true;
  if (!rest.starts_with(kVersion)) {
    out = PassTarget{};
    return false;
  }
  rest.remove_prefix(kVersion.size());
  // Judged decoded and passed on as it came: both ends then see the path that was judged.
  malformed = !path_is_plain(rest);
  out.path = "/api/v1/" + std::string(rest);
  out.query = query;
  return true;
}

const LocalError* pass_refusal(std::string_view method, const PassTarget& target, bool read_only) {
  static constexpr std::array<std::string_view, 4> kMethods = {"GET", "PUT", "POST", "DELETE"};
  if (std::find(kMethods.begin(), kMethods.end(), method) == kMethods.end()) return &kLocalMethod;
  // The whole path is compared: a longer one may be a change in a later version of the API.
  const bool reads = method == "GET" || (method == "POST" && target.path == "/api/v1/validate/job");
  return read_only && !reads ? &kLocalReadOnly : nullptr;
}

LocalReply pass_reply(ClientReply reply) {
  switch (reply.kind) {
    case ReplyKind::NotSent: return error_reply(400, "bad_request", reply.error);
    case ReplyKind::Unreachable: return error_reply(502, "unreachable", reply.error);
    case ReplyKind::NotTrusted: return error_reply(502, "not_trusted", reply.error);
    case ReplyKind::Signed:
    case ReplyKind::Unsigned: break;
  }
  LocalReply out;
  out.status = static_cast<unsigned>(reply.status);
  out.is_unsigned = reply.kind == ReplyKind::Unsigned;
  out.retry_after_s = reply.retry_after_s;
  // A tag leads to changes, so it is taken from the scheduler's own words only.
  if (!out.is_unsigned) out.etag = etag_of_body(reply.body);
  out.body = std::move(reply.body);
  return out;
}

}  // namespace orv
