#include "qvx/read/keyed_hash.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

using namespace tarnwick::qvx;

namespace {

// The bytes 0, 1, ..., as in the published vectors. The results are those of `openssl mac -macopt size:16 SIPHASH`.
std::vector<std::uint8_t> ascending(std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

TEST(KeyedHash, DiffersFromSipHash) {
    KeyedHash::Key key{};
    std::iota(key.begin(), key.end(), std::uint8_t{0});
    const KeyedHash hash(key);
    using Wide = KeyedHash::Wide;
    EXPECT_EQ(hash.wide(ascending(0)), (Wide{0xe6a825ba047f81a3, 0x930255c71472f66d}));
    EXPECT_EQ(hash.wide(ascending(8)), (Wide{0x61f55862baa9623b, 0xb49714f364e2830f}));
    EXPECT_EQ(hash.wide(ascending(63)), (Wide{0x4a83502f77d15051, 0x7cbd3f979a063e50}));
}

TEST(KeyedHash, HasSameKeyEachTime) { EXPECT_NE(KeyedHash()("a"), KeyedHash()("a")); }

}  // namespace
