#include "client/progress.h"

#include <cstdio>
#include <utility>

#include "client/output.h"

namespace orv {
namespace {

using std::chrono::steady_clock;

// Also the time before the first line: an answer that comes at once needs none.
constexpr std::chrono::seconds kTick{1};
constexpr const char* kEraseLine = "\r\033[K";

}  // namespace

void Progress::wait_for(std::string what) {
  if (!enabled_) return;
  const bool waiting = !what_.empty();  // the timer runs already
  what_ = std::move(what);
  if (waiting) return;
  since_ = steady_clock::now();
  tick();
}

void Progress::done() {
  what_.clear();
  clear();
  timer_.cancel();
}

void Progress::clear() {
  if (shown_) std::fputs(kEraseLine, stderr);
  shown_ = false;
}

void Progress::tick() {
  timer_.expires_after(kTick);
  timer_.async_wait([this](boost::system::error_code ended) {
    // done() may come when the timer has expired and its handler is not yet called.
    if (ended || what_.empty()) return;
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - since_).count();
    std::fprintf(stderr, "%s%s ... %lld s", kEraseLine, printable(what_).c_str(),
                 static_cast<long long>(seconds));
    shown_ = true;
    tick();
  });
}

}  // namespace orv
