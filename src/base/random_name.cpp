#include "base/random_name.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <system_error>

namespace tarnwick {

std::string randomDigits() {
    std::uint64_t number = 0;
    ssize_t count = 0;
    do {
        count = ::getrandom(&number, sizeof number, 0);
    } while (count < 0 && errno == EINTR);
    if (count != sizeof number) throw std::system_error(errno, std::generic_category(), "getrandom");
    std::array<char, 17> text{};
    std::snprintf(text.data(), text.size(), "%016" PRIx64, number);
    return text.data();
}

}  // namespace tarnwick
