// orv_sim: plays histories of a simulated server against the scheduler's code.
//   orv_sim --seed N [--without i,j,...]   one history with its story
//   orv_sim --shrink N                     the incidents that the failure of history N needs
//   orv_sim --minutes M [--from N]         as many histories as fit, from seed N on
//   orv_sim --count C [--from N]           so many histories
// Exit status 0 when everything held, 1 when something did not, 2 for wrong usage.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
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

void play(const HistoryOptions& options, Outcome& outcome) {
  History history(options);
  outcome.incidents = history.play();
  outcome.runs = history.model.runs;
  outcome.held = history.model.failure.empty();
  outcome.failure = {};
  history.model.failure.copy(outcome.failure.data(), outcome.failure.size() - 1);
  (void)std::fflush(nullptr);
}

// Plays one history in a process of its own: what the killed leave behind goes with it, and a crash
// is a failure like any other.
Outcome play_apart(const HistoryOptions& options) {
  void* const page =
      ::mmap(nullptr, sizeof(Outcome), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) std::abort();
  auto* const shared = new (page) Outcome{.failure = {"the program crashed"}};
  (void)std::fflush(nullptr);
  if (const pid_t child = ::fork(); child != 0) {
    (void)::waitpid(child, nullptr, 0);
  } else {
    if (!options.verbose) {
      (void)!std::freopen("/dev/null", "w", stdout);
      (void)!std::freopen("/dev/null", "w", stderr);
    }
    play(options, *shared);
    ::_exit(0);
  }
  const Outcome outcome = *shared;
  (void)::munmap(page, sizeof(Outcome));
  return outcome;
}

int play_one(HistoryOptions options) {
  options.verbose = true;
  const Outcome outcome = play_apart(options);
  std::printf("seed %lu: %s\n", options.seed,
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
  for (const std::size_t i : options.without) left_out += "," + std::to_string(i);
  const int status = play_one(options);
  std::printf("%zu of %zu incidents are needed: --seed %lu --without %s\n",
              whole.incidents - options.without.size(), whole.incidents, options.seed,
              left_out.empty() ? "" : left_out.c_str() + 1);
  return status;
}

int play_many(HistoryOptions options, double minutes, std::uint64_t count) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const auto seconds = [start] {
    return std::chrono::duration<double>(Clock::now() - start).count();
  };
  const std::uint64_t first = options.seed;
  std::uint64_t failed = 0;
  std::uint64_t runs = 0;
  for (; minutes > 0 ? seconds() < minutes * 60 : options.seed < first + count; ++options.seed) {
    const Outcome outcome = play_apart(options);
    runs += outcome.runs;
    if (outcome.held) continue;
    ++failed;
    std::printf("seed %lu: %s\n", options.seed, outcome.failure.data());
    (void)std::fflush(stdout);
  }
  const std::uint64_t played = options.seed - first;
  std::printf("seeds %lu to %lu: %lu histories, %.1f years, %lu runs in %.1f s: %lu failed\n",
              first, options.seed - 1, played,
              static_cast<double>(played) * static_cast<double>(options.days + 3) / 365.25, runs,
              seconds(), failed);
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
  std::map<std::string, std::string> words;
  for (int i = 1; i + 1 < argc; i += 2) words[argv[i]] = argv[i + 1];
  if (argc % 2 == 0) return usage();
  HistoryOptions options;
  for (const char* word : {"--seed", "--shrink", "--from"}) {
    if (words.contains(word)) options.seed = std::stoull(words[word]);
  }
  std::stringstream list(words["--without"]);
  for (std::string item; std::getline(list, item, ',');) options.without.insert(std::stoul(item));
  if (words.contains("--seed")) return play_one(options);
  if (words.contains("--shrink")) return shrink(options);
  if (words.contains("--count")) return play_many(options, 0, std::stoull(words["--count"]));
  if (words.contains("--minutes")) return play_many(options, std::stod(words["--minutes"]), 0);
  return usage();
}
