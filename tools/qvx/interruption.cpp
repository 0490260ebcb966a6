#include "interruption.h"

#include <atomic>
#include <csignal>
#include <initializer_list>

namespace tarnwick::qvx {

namespace {

std::atomic<bool> wasRaised = false;  // lock-free, as a signal handler requires

void remember(int) { wasRaised = true; }

}  // namespace

void watchForInterruption() {
    struct sigaction action {};
    action.sa_handler = remember;
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
}

bool interrupted() { return wasRaised; }

}  // namespace tarnwick::qvx
