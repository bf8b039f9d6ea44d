// The list of servers: what it may say, and how one is added.
#include "client/server_list.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "support/support.h"

namespace orv {
namespace {

using test::ScopedEnv;
using test::TempDir;

const std::string kFingerprint(64, 'a');

TEST(ServerAddress, TakesAHostWithOrWithoutAPort) {
  // No host: refused.
  // clang-format off
  static constexpr struct { const char *text, *host; std::uint16_t port; const char* shown; } kCases[] = {
      {"backup1", "backup1", 8447, "backup1:8447"},
      {"b_1.example.com:1", "b_1.example.com", 1, "b_1.example.com:1"},
      {"127.0.0.1:65535", "127.0.0.1", 65535, "127.0.0.1:65535"},
      {"[::1]", "::1", 8447, "[::1]:8447"},
      {"[2001:db8::7]:9", "2001:db8::7", 9, "[2001:db8::7]:9"},
      {"::1", nullptr, 0, ""}, {"a:b:1", nullptr, 0, ""}, {"", nullptr, 0, ""},
      {":1", nullptr, 0, ""}, {"a:", nullptr, 0, ""}, {"a:0", nullptr, 0, ""},
      {"a:65536", nullptr, 0, ""}, {"a:+1", nullptr, 0, ""}, {"a:000001", nullptr, 0, ""},
      {"[]:1", nullptr, 0, ""}, {"[::1", nullptr, 0, ""}, {"[::1]x", nullptr, 0, ""},
      {"[host]", nullptr, 0, ""}, {"127.0.0.1/x", nullptr, 0, ""}, {"user@host", nullptr, 0, ""},
      {"https://host", nullptr, 0, ""}, {"h\nX: y", nullptr, 0, ""}, {"a b", nullptr, 0, ""},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.text);
    ServerAddress at;
    ASSERT_EQ(parse_server_address(c.text, at), c.host != nullptr);
    if (c.host == nullptr) continue;
    EXPECT_EQ(at, (ServerAddress{c.host, c.port}));
    EXPECT_EQ(at.text(), c.shown);
  }
}

TEST(Fingerprint, IgnoresColonsAndCase) {
  Sha256Digest a{}, b{};
  EXPECT_TRUE(parse_fingerprint("0123456789abcdef" + kFingerprint.substr(16), a));
  EXPECT_TRUE(parse_fingerprint("01:23:45:67:89:AB:CD:EF:" + kFingerprint.substr(16), b));
  EXPECT_EQ(a, b);
  EXPECT_EQ(fingerprint_text(a).substr(0, 27), "01:23:45:67:89:AB:CD:EF:AA:");
  for (const std::string& bad : {kFingerprint + "a", kFingerprint.substr(1), std::string("AA:BB"),
                                 std::string(), kFingerprint.substr(1) + "g"}) {
    EXPECT_FALSE(parse_fingerprint(bad, a)) << bad;
  }
}

TEST(ServerList, ReadsAllServersOrNamesTheLineAtFault) {
  const std::string whole = "[a]\nserver = a\nfingerprint = " + kFingerprint;
  const std::pair<std::string, std::string> cases[] = {
      // message after "PATH:"; empty: read
      {"", ""},
      {"# mine\n[a] \nserver='a:1' # here\nfingerprint=\"" + kFingerprint +
           "\"\r\ntoken-file=/t\n\n[b]\nserver=[::1]\nfingerprint=" + kFingerprint +
           "\ntoken-file=~/t",
       ""},
      {whole, "3: [a] has no 'token-file'"},
      {"[a]\n[b]\n", "2: [a] has no 'server'"},
      {"[a]\nserver=a\ntoken-file=/t\n", "3: [a] has no 'fingerprint'"},
      {whole + "\ntoken-file=/t\n[a]\n", "5: duplicate section 'a'"},
      {whole + "\ntoken-file=t\n",
       "4: 'token-file' must be an absolute path or begin with ~/, not 't'"},
      {whole + "\nserver=b\n", "4: duplicate setting 'server'"},
      {"server=a\n", "1: content before any [section]"},
      {"[a]\nserver=a b\n", "2: 'server' must be <host>[:<port>] or [<IPv6>][:<port>], not 'a b'"},
      {"[a]\nfingerprint=00\n", "2: 'fingerprint' must be the SHA-256 of the certificate, 64 "},
      {"[a]\nport=1\n", "2: unknown key 'port'"},
      {"[a]\nserver\n", "2: expected key=value"},
      {"[a\n", "1: malformed section header"},
      {"[a,b]\n", "1: a server's name is 1..64 letters, digits, '.', '_' and '-', not 'a,b'"},
      {"[" + std::string(65, 'x') + "]\n", "1: a server's name is 1..64 "},
      {std::string("[a]\nserver=a\0\n", 14), "2: the line contains a NUL byte"},
  };
  const TempDir dir;
  const ScopedEnv home("HOME", "/home/me");
  for (const auto& [text, message] : cases) {
    const std::string path = dir.write("servers", text);
    std::vector<Server> servers;
    std::array<char, kClientMessageSize> err{};
    EXPECT_EQ(read_server_list(path, servers, err) == 0, message.empty()) << text << err.data();
    if (!message.empty()) {
      EXPECT_TRUE(std::string(err.data()).starts_with(path + ":" + message)) << err.data();
      EXPECT_TRUE(servers.empty());
    } else if (!text.empty()) {
      ASSERT_EQ(servers.size(), 2U);
      EXPECT_EQ(servers[0].name, "a");
      EXPECT_EQ(servers[0].address, (ServerAddress{"a", 1}));
      EXPECT_EQ(servers[1].token_file, "/home/me/t");
    }
  }
}

TEST(ServerList, LiesWhereTheUserKeepsConfiguration) {
  const ScopedEnv home("HOME", "/home/me");
  {
    const ScopedEnv xdg("XDG_CONFIG_HOME", "/etc/me");
    EXPECT_EQ(default_server_list_path(), "/etc/me/orv/servers");
  }
  for (const char* relative : {"", "x"}) {
    const ScopedEnv xdg("XDG_CONFIG_HOME", relative);
    EXPECT_EQ(default_server_list_path(), "/home/me/.config/orv/servers");
  }
  std::vector<Server> servers(1);
  std::array<char, kClientMessageSize> err{};
  EXPECT_EQ(read_server_list("/nonexistent/servers", servers, err), 0) << "no list is an empty one";
  EXPECT_TRUE(servers.empty());
  const TempDir dir;
  const std::string open = dir.write("servers", "");
  ASSERT_EQ(::chmod(open.c_str(), 0666), 0);
  EXPECT_EQ(read_server_list(open, servers, err), -1);
  EXPECT_TRUE(test::contains(err.data(), "is writable by everybody (chmod o-w ")) << err.data();
}

TEST(AddServer, KeepsWhatIsThereAndRefusesWhatItCouldNotRead) {
  const TempDir dir;
  const std::string path = dir.file("new/orv/servers");
  Server server{"b1", {"::1", 9}, {}, ""};
  std::array<char, kClientMessageSize> err{};
  ASSERT_EQ(add_server(path, server, "~/my token", err), 0) << err.data();
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_EQ(add_server(path, server, "/t", err), -1);
  EXPECT_TRUE(test::contains(err.data(), "duplicate section 'b1'")) << err.data();
  server.name = "b2";
  EXPECT_EQ(add_server(path, server, "/it's", err), -1) << "a quote cannot be written";
  EXPECT_EQ(add_server(path, server, "/a\nb", err), -1);

  const std::string before = test::read_file(path) + "# mine";
  dir.write("new/orv/servers", before);
  std::vector<std::thread> others;  // they wait for each other
  for (const char* name : {"b2", "b3", "b4", "b5"}) {
    others.emplace_back([&path, name] {
      std::array<char, kClientMessageSize> message{};
      EXPECT_EQ(add_server(path, {name, {"h", 1}, {}, ""}, "/t", message), 0) << message.data();
    });
  }
  for (std::thread& other : others) other.join();
  EXPECT_TRUE(test::read_file(path).starts_with(before + "\n\n["));
  std::vector<Server> servers;
  ASSERT_EQ(read_server_list(path, servers, err), 0) << err.data();
  ASSERT_EQ(servers.size(), 5U);
  EXPECT_TRUE(servers[0].token_file.ends_with("/my token"));
}

}  // namespace
}  // namespace orv
