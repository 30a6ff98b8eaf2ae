#include "common/stop_signal.h"

#include <atomic>
#include <csignal>

namespace Common {

namespace {

// Lock-free, so safe to store from a signal handler.
std::atomic<int> stop_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void RecordStopSignal(int sig) {
    int expected = 0;
    stop_signal.compare_exchange_strong(expected, sig);
}

}  // namespace

void InstallStopSignalHandlers() {
    struct sigaction action {};
    action.sa_handler = RecordStopSignal;
    sigemptyset(&action.sa_mask);
    // SA_RESETHAND: the second signal takes the default action (ends the
    // process) for a user who does not want to wait for the orderly stop.
    action.sa_flags = SA_RESETHAND | SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int StopSignal() {
    return stop_signal.load(std::memory_order_relaxed);
}

}  // namespace Common
