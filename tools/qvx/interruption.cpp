#include "interruption.h"

#include <atomic>
#include <csignal>
#include <initializer_list>

namespace tarnwick::qvx {

namespace {

std::atomic<int> raised = 0;  // lock-free, as a signal handler requires

void remember(int number) { raised = number; }

// A signal that is ignored (nohup) stays ignored.
bool isIgnored(int number) {
    struct sigaction action {};
    return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

void watchForInterruption() {
    struct sigaction action {};
    action.sa_handler = remember;
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        if (!isIgnored(number)) sigaction(number, &action, nullptr);
}

bool interrupted() { return raised != 0; }

void endAsInterrupted() {
    std::signal(raised, SIG_DFL);
    std::raise(raised);
}

}  // namespace tarnwick::qvx
