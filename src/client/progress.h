// The line on a terminal that says what a command is waiting for, once that takes more than a
// second.
#ifndef ORV_CLIENT_PROGRESS_H_
#define ORV_CLIENT_PROGRESS_H_

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <string>

namespace orv {

// Writes to standard error. Callers that print call clear() first, so that the line is not in the
// way.
class Progress {
 public:
  // Shows nothing at all unless `enabled`.
  Progress(const boost::asio::any_io_executor& executor, bool enabled)
      : timer_(executor), enabled_(enabled) {}

  // What is waited for from now on; a new text while waiting does not start the clock anew.
  void wait_for(std::string what);
  // Nothing is waited for; the line goes.
  void done();
  // Takes the line away until the next second.
  void clear();

  // What an interrupt must be answered with: what goes on although this program ends.
  void set_interrupt_note(std::string note) { interrupt_note_ = std::move(note); }
  [[nodiscard]] const std::string& interrupt_note() const { return interrupt_note_; }

 private:
  void tick();

  boost::asio::steady_timer timer_;  // to the next second; idle while nothing is waited for
  bool enabled_;
  bool shown_ = false;  // the line stands on the terminal
  std::string what_;    // empty: nothing is waited for
  std::chrono::steady_clock::time_point since_;
  std::string interrupt_note_;
};

}  // namespace orv

#endif  // ORV_CLIENT_PROGRESS_H_
