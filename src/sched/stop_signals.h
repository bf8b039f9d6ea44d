// The signals that ask this process to stop. A handler may only set flags; the loops look at them.
#ifndef ORV_SCHED_STOP_SIGNALS_H_
#define ORV_SCHED_STOP_SIGNALS_H_

#include <signal.h>

#include <array>
#include <cstddef>
#include <initializer_list>
#include <string>

namespace orv {

// What becomes of a signal that whoever started the process has set to be ignored.
enum class IfIgnored {
  StaysIgnored,  // nohup and a shell's background jobs mean it
  IsCaught,
};

// Catches the signals for the time of its life, and puts back what was there before. A signal that
// was blocked is unblocked, or nobody could stop the process. Interrupted system calls are not
// restarted. One at a time.
class StopSignals {
 public:
  StopSignals(std::initializer_list<int> signals, IfIgnored if_ignored);
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

 private:
  struct Caught {
    int number = 0;
    struct sigaction before {};
  };
  std::array<Caught, 3> caught_;
  std::size_t count_ = 0;
  sigset_t mask_before_{};
};

// Whether one of them has arrived since they are caught.
[[nodiscard]] bool stop_requested();
// Whether Ctrl-C came once more after that: whoever sits at the terminal does not want to wait.
[[nodiscard]] bool stop_is_urgent();
// The first one that arrived: "SIGTERM"; "?" when none has.
[[nodiscard]] std::string stop_signal_name();

}  // namespace orv

#endif  // ORV_SCHED_STOP_SIGNALS_H_
