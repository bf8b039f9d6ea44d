#include "client/server_list.h"

#include <fcntl.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "common/files.h"
#include "common/host_port.h"
#include "common/line_syntax.h"
#include "common/message.h"
#include "common/replacement_file.h"
#include "common/text.h"

namespace orv {
namespace {

bool is_alphanumeric(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_host_character(char c) { return is_alphanumeric(c) || c == '.' || c == '_' || c == '-'; }

bool is_ipv6_character(char c) { return hex_digit(c) >= 0 || c == ':' || c == '.'; }

// Takes the host off the front of `rest`, brackets and all.
std::optional<std::string_view> take_host(std::string_view& rest) {
  const bool bracketed = rest.starts_with('[');
  const std::size_t end = bracketed ? rest.find(']') : std::min(rest.find(':'), rest.size());
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view host = bracketed ? rest.substr(1, end - 1) : rest.substr(0, end);
  // The longest name of the DNS (RFC 1035, section 2.3.4).
  if (host.empty() || host.size() > 255) return std::nullopt;
  if (!std::all_of(host.begin(), host.end(), bracketed ? is_ipv6_character : is_host_character)) {
    return std::nullopt;
  }
  rest.remove_prefix(end + (bracketed ? 1 : 0));
  return host;
}

std::string home_directory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') return home;
  // cron and service managers may start programs without HOME.
  const passwd* user = ::getpwuid(::geteuid());
  return user != nullptr && user->pw_dir != nullptr ? user->pw_dir : "";
}

// The list while it is read.
struct Reading {
  const char* path;
  std::vector<Server>& servers;
  std::span<char> err;
  std::size_t line = 0;
  bool has_address = false, has_fingerprint = false, has_token_file = false;  // the last section's
};

int fault(const Reading& reading, const char* complaint, std::string_view word = {}) {
  if (word.data() == nullptr)
    return fail(reading.err, "%s:%zu: %s", reading.path, reading.line, complaint);
  return fail(reading.err, "%s:%zu: %s '%.*s'", reading.path, reading.line, complaint,
              static_cast<int>(std::min<std::size_t>(word.size(), 128)), word.data());
}

// A section that ends must have said all that is needed.
int end_section(const Reading& reading) {
  if (reading.servers.empty()) return 0;
  const char* missing = !reading.has_address       ? "server"
                        : !reading.has_fingerprint ? "fingerprint"
                        : !reading.has_token_file  ? "token-file"
                                                   : nullptr;
  if (missing == nullptr) return 0;
  return fail(reading.err, "%s:%zu: [%s] has no '%s'", reading.path, reading.line,
              reading.servers.back().name.c_str(), missing);
}

int begin_section(Reading& reading, std::string_view line) {
  const std::optional<std::string_view> name = section_name(line);
  if (!name) return fault(reading, "malformed section header");
  if (end_section(reading) != 0) return -1;
  if (!is_server_name(*name)) {
    return fault(reading, "a server's name is 1..64 letters, digits, '.', '_' and '-', not", *name);
  }
  const bool taken = std::any_of(reading.servers.begin(), reading.servers.end(),
                                 [&](const Server& server) { return server.name == *name; });
  if (taken) return fault(reading, "duplicate section", *name);
  if (reading.servers.size() == kMaxServers) return fault(reading, "too many servers");
  reading.servers.emplace_back().name = *name;
  reading.has_address = reading.has_fingerprint = reading.has_token_file = false;
  return 0;
}

bool store_token_file(Server& server, std::string_view value) {
  server.token_file = expand_home(value);
  return server.token_file.starts_with('/');
}

int take_setting(Reading& reading, std::string_view line) {
  struct Key {
    std::string_view name;
    bool& seen;
    bool (*store)(Server& server, std::string_view value);
    const char* complaint;
  };
  const Key keys[] = {
      {"server", reading.has_address,
       [](Server& s, std::string_view v) { return parse_server_address(v, s.address); },
       "'server' must be <host>[:<port>] or [<IPv6>][:<port>], not"},
      {"fingerprint", reading.has_fingerprint,
       [](Server& s, std::string_view v) { return parse_fingerprint(v, s.fingerprint); },
       "'fingerprint' must be the SHA-256 of the certificate, 64 hexadecimal digits, not"},
      {"token-file", reading.has_token_file, store_token_file,
       "'token-file' must be an absolute path or begin with ~/, not"},
  };
  const std::optional<KeyValue> setting = split_key_value(line);
  if (!setting) return fault(reading, "expected key=value");
  for (const Key& key : keys) {
    if (setting->key != key.name) continue;
    if (key.seen) return fault(reading, "duplicate setting", setting->key);
    key.seen = true;
    SecretString value;
    unquote(setting->value, value);
    return key.store(reading.servers.back(), value) ? 0 : fault(reading, key.complaint, value);
  }
  return fault(reading, "unknown key", setting->key);
}

int take_line(Reading& reading, std::string_view raw_line) {
  ++reading.line;
  if (raw_line.find('\0') != std::string_view::npos) {
    return fault(reading, "the line contains a NUL byte");
  }
  const std::optional<std::size_t> length = content_length(raw_line);
  if (!length) return fault(reading, "unterminated quote or text after the closing quote");
  const std::string_view line = trim(raw_line.substr(0, *length));
  if (line.empty()) return 0;
  if (line.front() == '[') return begin_section(reading, line);
  if (reading.servers.empty()) return fault(reading, "content before any [section]");
  return take_setting(reading, line);
}

int parse_list(const char* path, std::string_view text, std::vector<Server>& out,
               std::span<char> err) {
  std::vector<Server> servers;
  Reading reading{path, servers, err};
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    if (take_line(reading, text.substr(0, end)) != 0) return -1;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  if (end_section(reading) != 0) return -1;
  out = std::move(servers);
  return 0;
}

// The bytes of the list; empty when there is no file.
int read_text(const std::string& path, std::string& text, std::span<char> err) {
  // A fifo must not block, nor a terminal become ours.
  const ScopedFd file = open_file(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (file.get() < 0 && errno == ENOENT) return 0;
  struct stat status {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    return fail(err, "cannot read the list of servers %s: %s", path.c_str(), ::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    return fail(err, "the list of servers %s is not a regular file", path.c_str());
  }
  // Who can write the list decides where the administrator's requests go.
  if ((status.st_mode & S_IWOTH) != 0) {
    return fail(err, "the list of servers %s is writable by everybody (chmod o-w %s)", path.c_str(),
                path.c_str());
  }
  if (read_whole(file.get(), kMaxServerListSize, text) != ErrorCode::Ok) {
    return fail(err, "cannot read the list of servers %s: %s", path.c_str(), ::strerror(errno));
  }
  return 0;
}

std::string section_text(const Server& server, std::string_view token_file) {
  return "[" + server.name + "]\nserver = " + server.address.text() +
         "\nfingerprint = " + fingerprint_text(server.fingerprint) + "\ntoken-file = '" +
         std::string(token_file) + "'\n";
}

}  // namespace

std::string ServerAddress::text() const { return host_port(host, port); }

bool parse_server_address(std::string_view text, ServerAddress& out) {
  const std::optional<std::string_view> host = take_host(text);
  if (!host) return false;
  std::uint32_t port = kDefaultApiPort;
  if (!text.empty()) {
    // ":65535" has six characters; more would be leading zeros.
    if (text.front() != ':' || text.size() > 6) return false;
    if (!parse_u32(text.substr(1), port) || port < 1 || port > UINT16_MAX) return false;
  }
  out.host = *host;
  out.port = static_cast<std::uint16_t>(port);
  return true;
}

bool parse_fingerprint(std::string_view text, Sha256Digest& out) {
  Sha256Digest digest{};
  std::size_t digits = 0;
  for (const char c : text) {
    // Wherever they stand: programs print them in groups of different sizes.
    if (c == ':') continue;
    const int value = hex_digit(c);
    if (value < 0 || digits == 2 * digest.size()) return false;
    unsigned char& byte = digest[digits++ / 2];
    byte = static_cast<unsigned char>(unsigned{byte} << 4U | static_cast<unsigned>(value));
  }
  if (digits != 2 * digest.size()) return false;
  out = digest;
  return true;
}

std::string fingerprint_text(const Sha256Digest& digest) {
  std::string text;
  for (const unsigned char byte : digest) {
    if (!text.empty()) text += ':';
    text += kUpperHexDigits[byte >> 4U];
    text += kUpperHexDigits[byte & 15U];
  }
  return text;
}

bool is_server_name(std::string_view text) {
  return !text.empty() && text.size() <= kMaxServerName && is_alphanumeric(text.front()) &&
         std::all_of(text.begin(), text.end(), is_host_character);
}

std::string default_server_list_path() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  if (config != nullptr && config[0] == '/') return std::string(config) + "/orv/servers";
  const std::string home = home_directory();
  return home.empty() ? "" : home + "/.config/orv/servers";
}

std::string expand_home(std::string_view path) {
  if (!path.starts_with("~/")) return std::string(path);
  return home_directory() + std::string(path.substr(1));
}

int read_server_list(const std::string& path, std::vector<Server>& out, std::span<char> err) {
  out.clear();
  std::string text;
  if (read_text(path, text, err) != 0) return -1;
  return parse_list(path.c_str(), text, out, err);
}

int add_server(const std::string& path, const Server& server, std::string_view token_file,
               std::span<char> err) {
  const bool writable_down = std::none_of(token_file.begin(), token_file.end(), [](char c) {
    return (c >= 0 && c < 0x20) || c == '\'' || c == 0x7F;
  });
  if (!writable_down) {
    return fail(err, "the name of the token file has a quote or a control character in it");
  }
  if (make_parent_directories(path) != ErrorCode::Ok) {
    return fail(err, "cannot make the directory of %s: %s", path.c_str(), ::strerror(errno));
  }
  // A file of its own: the list is replaced, and a lock on it would go with the old one.
  const ScopedFd lock = open_file((path + ".lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  if (!lock.valid() || !lock_exclusively(lock.get())) {
    return fail(err, "cannot lock the list of servers %s: %s", path.c_str(), ::strerror(errno));
  }
  std::string text;
  if (read_text(path, text, err) != 0) return -1;
  if (!text.empty() && text.back() != '\n') text += '\n';
  if (!text.empty()) text += '\n';
  text += section_text(server, token_file);
  // What would be written is read first: a name that is taken, or a path that cannot be written
  // down, shows here.
  std::vector<Server> servers;
  if (parse_list(path.c_str(), text, servers, err) != 0) return -1;
  if (replace_file(path, path + ".tmp", text, 0600, DirectoryFlush::Yes) == ErrorCode::Ok) return 0;
  return fail(err, "cannot write the list of servers %s: %s", path.c_str(), ::strerror(errno));
}

}  // namespace orv
