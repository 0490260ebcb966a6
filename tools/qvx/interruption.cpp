#include "interruption.h"

#include <atomic>
#include <csignal>
#include <initializer_list>

namespace tarnwick::qvx {

namespace {

std::atomic<int> raised = 0;  // lock-free, as a signal handler requires

std::atomic<void (*)(int)> woken = nullptr;

void remember(int number) {
    raised = number;
    if (auto* const wake = woken.load()) wake(number);
}

// A signal that is ignored (nohup) stays ignored.
bool isIgnored(int number) {
    struct sigaction action {};
    return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void handle(void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        if (!isIgnored(number)) sigaction(number, &action, nullptr);
}

}  // namespace

void watchForInterruption() { handle(remember, SA_RESTART); }

void watchForInterruption(void (*wake)(int number)) {
    woken = wake;
    handle(remember, 0);
}

void stopWatchingForInterruption() { handle(SIG_DFL, 0); }

bool interrupted() { return raised != 0; }

void endAsInterrupted() {
    std::signal(raised, SIG_DFL);
    std::raise(raised);
}

}  // namespace tarnwick::qvx
