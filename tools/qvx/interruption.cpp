#include "interruption.h"

#include <atomic>
#include <csignal>
#include <initializer_list>

namespace tarnwick::qvx {

namespace {

std::atomic<bool> raised = false;  // lock-free, as a signal handler requires

void note(int) { raised = true; }

}  // namespace

void watchForInterruption() {
    struct sigaction action {};
    action.sa_handler = note;
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
}

bool interrupted() { return raised; }

}  // namespace tarnwick::qvx
