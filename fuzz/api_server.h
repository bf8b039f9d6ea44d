// A daemon's state over files of a directory of its own, and requests sent to it through the
// router: what the targets need that try the API as a whole.
#ifndef ORV_FUZZ_API_SERVER_H_
#define ORV_FUZZ_API_SERVER_H_

#include <stdlib.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "api/router.h"
#include "common/log.h"
#include "config/snapshot.h"
#include "fuzz/targets.h"

namespace orv::fuzz {

class ApiServer {
 public:
  explicit ApiServer(std::string_view config) : config_(config) {
    log_init("fuzz", LogLevel::Error);
    std::string name = std::filesystem::temp_directory_path() / "orv_fuzz.XXXXXX";
    require(::mkdtemp(name.data()) != nullptr);
    directory_ = name;
    live_.config_path = directory_ + "/cfg";
    live_.queue_path = directory_ + "/queue";
    live_.job_log_dir = directory_ + "/logs";
    restore();
    const auto loaded = std::make_shared<Config>();
    require(loads(*loaded));
    live_.config = loaded;
  }
  ApiServer(const ApiServer&) = delete;
  ApiServer& operator=(const ApiServer&) = delete;
  ~ApiServer() {
    std::error_code ignored;  // a directory that stays behind is no finding
    std::filesystem::remove_all(directory_, ignored);
  }

  // Puts the configuration back to what it was in the beginning.
  void restore() { write("cfg", config_); }
  void write(const std::string& name, std::string_view bytes) {
    const std::filesystem::path path = std::filesystem::path(directory_) / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
  }
  // Whether the configuration file, as it is now, loads.
  bool loads(Config& out) const {
    std::array<char, kConfigMessageSize> message{};
    return config_load(live_.config_path.c_str(), out, message) == 0;
  }

  // Sends a request of an administrator, with the tag of the present file.
  const ApiReply& send(std::string_view method, std::string_view target, std::string_view body) {
    ApiRequest http;
    const std::size_t question = target.find('?');
    http.method.set_truncated(method);
    http.path.set_truncated(target.substr(0, question));
    if (question != std::string_view::npos) http.query.set_truncated(target.substr(question + 1));
    http.client.set_truncated("192.0.2.7");
    http.body = body;
    SecretString text;
    if (read_config_text(live_.config_path, text)) {
      http.if_match.set_truncated(entity_tag(text).view());
    }
    api_route(live_, reply_, {http, "fuzz", TokenRole::Admin, 1800000000});
    live_.run_queue.clear();
    return reply_;
  }

 private:
  std::string config_;
  std::string directory_;
  LiveState live_;
  ApiReply reply_;
};

}  // namespace orv::fuzz

#endif  // ORV_FUZZ_API_SERVER_H_
