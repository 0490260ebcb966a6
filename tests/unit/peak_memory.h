// Measures the memory that a part of a test needs. It cannot be used with a sanitizer, which replaces the allocator.
#pragma once

#include <malloc.h>

#include <fstream>
#include <string>

namespace tarnwick::test {

inline std::size_t statusKilobytes(const std::string& wanted) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (std::size_t value = 0; word == wanted && status >> value) return value;
    return 0;
}

// By how much the memory of this process rises meanwhile, in KiB.
template <typename Step>
std::size_t peakOf(const Step& step) {
    ::malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak begins here
    const std::size_t before = statusKilobytes("VmRSS:");
    step();
    return statusKilobytes("VmHWM:") - before;
}

}  // namespace tarnwick::test
