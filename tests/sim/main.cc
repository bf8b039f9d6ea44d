// orv_sim: plays histories of a simulated server against the scheduler's code.
//   orv_sim --seed N [--without i,j,...]   one history with its story
//   orv_sim --shrink N                     the incidents that the failure of history N needs
//   orv_sim --minutes M [--from N]         as many histories as fit, from seed N on
//   orv_sim --count C [--from N]           so many histories
// Exit status 0 when everything held, 1 when something did not, 2 for wrong usage.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "sim/history.h"

namespace {

using orv::sim::History;
using orv::sim::HistoryOptions;

struct Outcome {
  bool held = false;
  std::size_t incidents = 0;
  std::uint64_t runs = 0;
  std::array<char, 400> failure{};
};

// Plays one history in a process of its own: what the killed leave behind goes with it, and a crash
// is a failure like any other.
Outcome play_apart(const HistoryOptions& options) {
  int ends[2];
  if (::pipe(ends) != 0) std::abort();
  (void)std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    if (!options.verbose) {
      (void)!std::freopen("/dev/null", "w", stdout);
      (void)!std::freopen("/dev/null", "w", stderr);
    }
    Outcome outcome;
    History history(options);
    outcome.incidents = history.play();
    outcome.runs = history.model.runs;
    outcome.held = history.model.failure.empty();
    std::snprintf(outcome.failure.data(), outcome.failure.size(), "%s",
                  history.model.failure.c_str());
    (void)std::fflush(nullptr);
    (void)!::write(ends[1], &outcome, sizeof outcome);
    ::_exit(0);
  }
  ::close(ends[1]);
  Outcome outcome;
  if (::read(ends[0], &outcome, sizeof outcome) != static_cast<ssize_t>(sizeof outcome)) {
    std::snprintf(outcome.failure.data(), outcome.failure.size(), "the program crashed");
  }
  ::close(ends[0]);
  (void)::waitpid(child, nullptr, 0);
  return outcome;
}

int play_one(HistoryOptions options) {
  options.verbose = true;
  const Outcome outcome = play_apart(options);
  std::printf("seed %llu: %s\n", static_cast<unsigned long long>(options.seed),
              outcome.held ? "everything held" : outcome.failure.data());
  return outcome.held ? 0 : 1;
}

// Leaves out incidents, half of them at a time and then fewer, as long as the failure stays.
int shrink(HistoryOptions options) {
  const Outcome whole = play_apart(options);
  if (whole.held) return play_one(options);
  for (std::size_t size = whole.incidents / 2; size >= 1; size /= 2) {
    for (std::size_t from = 0; from < whole.incidents; from += size) {
      HistoryOptions fewer = options;
      for (std::size_t i = from; i < std::min(from + size, whole.incidents); ++i) {
        fewer.without.insert(i);
      }
      if (!play_apart(fewer).held) options = fewer;
    }
  }
  std::string left_out;
  for (const std::size_t i : options.without) {
    left_out += (left_out.empty() ? "" : ",") + std::to_string(i);
  }
  const int status = play_one(options);
  std::printf("%zu of %zu incidents are needed: --seed %llu --without %s\n",
              whole.incidents - options.without.size(), whole.incidents,
              static_cast<unsigned long long>(options.seed), left_out.c_str());
  return status;
}

int play_many(HistoryOptions options, double minutes, std::uint64_t count) {
  const auto start = std::chrono::steady_clock::now();
  const auto seconds = [start] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  std::uint64_t played = 0;
  std::uint64_t failed = 0;
  std::uint64_t runs = 0;
  for (; minutes > 0 ? seconds() < minutes * 60 : played < count; ++played, ++options.seed) {
    const Outcome outcome = play_apart(options);
    runs += outcome.runs;
    if (outcome.held) continue;
    ++failed;
    std::printf("seed %llu: %s\n", static_cast<unsigned long long>(options.seed),
                outcome.failure.data());
    (void)std::fflush(stdout);
  }
  std::printf("%llu histories, %.1f years, %llu runs in %.1f s: %llu failed\n",
              static_cast<unsigned long long>(played),
              static_cast<double>(played) * static_cast<double>(options.days + 3) / 365.25,
              static_cast<unsigned long long>(runs), seconds(),
              static_cast<unsigned long long>(failed));
  return failed == 0 ? 0 : 1;
}

int usage() {
  std::fprintf(stderr,
               "usage: orv_sim --seed N [--without I,J,...] | --shrink N | "
               "--minutes M [--from N] | --count C [--from N]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  HistoryOptions options;
  double minutes = 0;
  std::uint64_t count = 0;
  const char* mode = "";
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string word = argv[i];
    const char* const value = argv[i + 1];
    if (word == "--seed" || word == "--shrink" || word == "--from") {
      options.seed = std::strtoull(value, nullptr, 10);
      if (word != "--from") mode = argv[i];
    } else if (word == "--without") {
      std::stringstream list(value);
      for (std::string item; std::getline(list, item, ',');) {
        options.without.insert(std::strtoull(item.c_str(), nullptr, 10));
      }
    } else if (word == "--minutes") {
      minutes = std::strtod(value, nullptr);
    } else if (word == "--count") {
      count = std::strtoull(value, nullptr, 10);
    } else {
      return usage();
    }
  }
  if (argc % 2 == 0 || argc < 3) return usage();
  if (std::strcmp(mode, "--seed") == 0) return play_one(options);
  if (std::strcmp(mode, "--shrink") == 0) return shrink(options);
  return play_many(options, minutes, count);
}
