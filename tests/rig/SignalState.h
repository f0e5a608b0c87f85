#pragma once

#include <pthread.h>

#include <array>
#include <csignal>
#include <cstddef>

namespace kestrune::testing {

/// Saves the signal mask of the calling thread, and the dispositions of the signals in `numbers`. The
/// destructor restores both.
class SignalState {
 public:
  SignalState() {
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (std::size_t i = 0; i < numbers.size(); ++i) sigaction(numbers[i], nullptr, &actions[i]);
  }
  ~SignalState() {
    for (std::size_t i = 0; i < numbers.size(); ++i) sigaction(numbers[i], &actions[i], nullptr);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  }
  SignalState(const SignalState&) = delete;
  SignalState& operator=(const SignalState&) = delete;

 private:
  static constexpr std::array numbers{SIGHUP,  SIGINT,  SIGQUIT, SIGTERM, SIGCHLD,
                                      SIGPIPE, SIGUSR1, SIGUSR2, SIGXFSZ};
  sigset_t mask{};
  std::array<struct sigaction, numbers.size()> actions{};
};

}  // namespace kestrune::testing
