// Runs a harness over every file of the folders named on the command line, as it is, cut at every length, and with
// every byte changed in three ways. A folder without files is an error.
#include <malloc.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "require.h"

namespace {

// Each input in memory of just its size, so that the address sanitizer sees a step too far.
void run(std::vector<std::uint8_t> input) { LLVMFuzzerTestOneInput(input.data(), input.size()); }

void runWithDamage(const std::vector<std::uint8_t>& input) {
    run(input);
    for (auto end = input.begin(); end != input.end(); ++end) run({input.begin(), end});
    constexpr std::uint8_t changes[] = {0x01, 0x80, 0xff};
    auto damaged = input;
    for (auto& byte : damaged)
        for (const auto change : changes) {
            byte ^= change;
            run(damaged);
            byte ^= change;
        }
}

// Otherwise glibc maps and unmaps the memory of a block of an archive for each input.
void keepMemory() {
    mallopt(M_MMAP_THRESHOLD, 1 << 25);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_ARENA_MAX, 1);
}

}  // namespace

int main(int count, char** arguments) {
    keepMemory();
    std::size_t replayed = 0;
    for (int i = 1; i < count; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            runWithDamage({std::istreambuf_iterator<char>(file), {}});
            ++replayed;
        }
    }
    std::printf("%zu inputs\n", replayed);
    return replayed == 0 ? 1 : 0;
}
