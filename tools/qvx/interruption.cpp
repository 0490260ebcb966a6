#include "interruption.h"

#include <csignal>
#include <initializer_list>

namespace tarnwick::qvx {

namespace {

volatile std::sig_atomic_t raised = 0;

void note(int) { raised = 1; }

}  // namespace

void watchForInterruption() {
    struct sigaction action {};
    action.sa_handler = note;
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
}

bool interrupted() { return raised != 0; }

}  // namespace tarnwick::qvx
