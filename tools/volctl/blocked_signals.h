// Blocks the signals that end a program, for steps that must not be interrupted.
#pragma once

#include <csignal>

namespace tarnwick {

// While an object exists, a signal cannot end the program between two steps that belong together.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t ending;
        sigemptyset(&ending);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&ending, signal);
        sigprocmask(SIG_BLOCK, &ending, &before_);
    }
    ~BlockedSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t before_{};
};

}  // namespace tarnwick
