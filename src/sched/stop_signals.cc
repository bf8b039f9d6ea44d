#include "sched/stop_signals.h"

#include <string.h>

namespace orv {
namespace {

volatile sig_atomic_t first_signal = 0;
volatile sig_atomic_t interrupted_again = 0;

void note_signal(int number) {
  if (first_signal == 0) {
    first_signal = number;
  } else if (number == SIGINT) {
    // Only Ctrl-C: a terminal that goes away and a system that shuts down may well signal twice.
    interrupted_again = 1;
  }
}

}  // namespace

StopSignals::StopSignals(std::initializer_list<int> signals, IfIgnored if_ignored) {
  first_signal = 0;
  interrupted_again = 0;
  sigset_t mask;
  ::sigemptyset(&mask);
  struct sigaction action {};
  action.sa_handler = note_signal;
  ::sigemptyset(&action.sa_mask);
  for (const int number : signals) {
    ::sigaddset(&mask, number);
    struct sigaction before {};
    if (::sigaction(number, nullptr, &before) != 0) continue;
    if (before.sa_handler == SIG_IGN && if_ignored == IfIgnored::StaysIgnored) continue;
    (void)::sigaction(number, &action, nullptr);
    caught_.at(count_++) = {number, before};
  }
  // Last: a signal that waited behind the mask arrives here, and finds its handler.
  (void)::sigprocmask(SIG_UNBLOCK, &mask, &mask_before_);
}

StopSignals::~StopSignals() {
  (void)::sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
  for (std::size_t i = 0; i < count_; ++i) {
    (void)::sigaction(caught_.at(i).number, &caught_.at(i).before, nullptr);
  }
}

bool stop_requested() { return first_signal != 0; }

bool stop_is_urgent() { return interrupted_again != 0; }

std::string stop_signal_name() {
  const char* const name = ::sigabbrev_np(first_signal);
  return name != nullptr && first_signal != 0 ? std::string("SIG") + name : "?";
}

}  // namespace orv
