// The key line and its base64, in both readers: the strict one of qvx, and the lenient one of configurations.
#include "config/archive_public_key.h"
#include "qvx/crypto/ssh_key.h"
#include "require.h"

#include <array>
#include <cstring>
#include <stdexcept>

using namespace tarnwick;

namespace {

void checkBase64(std::string_view text, bool skipWhitespace, std::size_t capacity) {
    std::array<std::byte, 64> room;
    room.fill(std::byte{0xA5});
    std::uint64_t length = 0;
    const bool good = decodeBase64(text.size(), text.data(), skipWhitespace, capacity, length, room.data());
    require(!good || (length > 0 && length <= capacity && length <= (text.size() + 3) / 4 * 3));
    for (std::size_t i = capacity; i < room.size(); ++i) require(room[i] == std::byte{0xA5});
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = textOf(data, size);
    for (const std::size_t capacity : {0U, 1U, 31U, 32U})
        for (const bool skip : {false, true}) checkBase64(text, skip, capacity);

    std::array<std::byte, publicPointLength> point{};
    std::uint64_t length = 0;
    bool taken = false;
    try {
        taken = parseArchivePublicKey(std::string(text), point.data(), length);
        require(length == (taken ? publicPointLength : 0));
    } catch (const std::out_of_range&) {
        require(text.size() == 19);
    }
    const auto strict = qvx::parseSshKeyLine(text);
    if (!strict) return 0;
    require(text.starts_with(qvx::sshKeyLine(*strict)));
    require(taken && std::memcmp(point.data(), strict->data(), strict->size()) == 0);
    return 0;
}
