// The scheduler with the real network process in a private home: certificate, tokens, and clients.
#ifndef ORV_TESTS_E2E_NETWORK_NETWORK_FIXTURE_H_
#define ORV_TESTS_E2E_NETWORK_NETWORK_FIXTURE_H_

#include <utility>

#include "e2e/daemon_fixture.h"
#include "support/network.h"

namespace orv::test {

inline constexpr const char* kPython = "/usr/bin/python3";

class Network : public DaemonFixture {
 protected:
  [[nodiscard]] std::vector<std::string> as_user(std::vector<std::string> argv) const {
    return DaemonFixture::as_user(std::move(argv), ORV_SCHED_NET_PROGRAM);
  }
  ProgramResult sched_as_user(const std::string& command,
                              const std::vector<std::string>& words = {}) {
    return run_program(as_user(command_line(command, words)), env());
  }
  // Gives the token's role and keeps it in the file of that name.
  void add_token(const std::string& role) {
    const std::string out = sched_as_user("api-token", {"add", role, "--role", role}).out;
    const std::size_t at = out.find(role + ".");
    ASSERT_NE(at, std::string::npos) << out;
    home_.write(role, out.substr(at, out.find('\n', at) - at), 0600);
  }
  // Configures an API on loopback with the tokens "read" and "admin", and `more` behind its
  // section.
  void configure_api(const std::string& more) {
    port_ = std::to_string(free_port());
    server_ = "127.0.0.1:" + port_;
    configure("[api]\nenabled = yes\nlisten = " + server_ + "\ncert = " + home_.file("api.crt") +
              "\nkey = " + home_.file("api.key") + "\ntokens-file = " + home_.file("tokens") +
              "\n" + more);
    const std::string made = sched_as_user("api-init", {"--cn", "localhost"}).out;
    fingerprint_ = made.substr(made.find("fingerprint: ") + 13, 95);
    add_token("read");
    add_token("admin");
  }
  void start_api_daemon() {
    daemon_ = std::make_unique<Program>(as_user(command_line("daemon")), env());
    ASSERT_TRUE(daemon_says("API on " + server_)) << daemon_->err();
  }
  [[nodiscard]] Env client_env() const {
    return {{"ORV_API_SERVER", server_},
            {"ORV_API_FINGERPRINT", fingerprint_},
            {"ORV_API_TOKEN_FILE", home_.file("admin")},
            {"XDG_CONFIG_HOME", home_.path()}};
  }
  static std::vector<std::string> client_line(const std::vector<std::string>& words) {
    std::vector<std::string> argv = {ORV_API_PROGRAM};
    argv.insert(argv.end(), words.begin(), words.end());
    return argv;
  }
  [[nodiscard]] ProgramResult client(const std::vector<std::string>& words, const Env& changes = {},
                                     std::string_view input = {}) const {
    Env variables = changes;
    variables.merge(client_env());
    return run_program(client_line(words), variables, input);
  }
  // The reply to GET info with the token as a bearer, head and all.
  [[nodiscard]] std::string curl_info(const std::string& token) const {
    return run_program({"curl", "-si", "--cacert", home_.file("api.crt"), "--resolve",
                        "localhost:" + port_ + ":127.0.0.1", "-H", "Authorization: Bearer " + token,
                        "https://localhost:" + port_ + "/api/v1/info"})
        .out;
  }

  std::string port_, server_, fingerprint_;
};

}  // namespace orv::test

#endif  // ORV_TESTS_E2E_NETWORK_NETWORK_FIXTURE_H_
