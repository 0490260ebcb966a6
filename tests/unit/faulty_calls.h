// Calls of the C library that fail when a test wants them to. The definitions in faulty_calls.cpp take the place of the
// library's in the whole process, shared libraries included; they do the real thing unless a fault is armed.
#pragma once

#include <functional>
#include <string_view>

namespace tarnwick::test {

inline constexpr int halved = -1;  // in place of an errno value: a read or write of half as much as was asked for

struct Fault {
    std::string_view call;         // a group of calls, as faulty_calls.cpp names it
    unsigned first = 0;            // of the calls of the group, from arming on
    unsigned times = 1;            // how many of them
    int error = 0;                 // errno
    std::function<void()> before;  // done before the call, which then goes on unless there is an error as well
};

void arm(Fault fault);
unsigned disarm();  // the number of calls seen

}  // namespace tarnwick::test
