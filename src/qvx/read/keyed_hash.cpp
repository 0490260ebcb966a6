#include "qvx/read/keyed_hash.h"

#include <algorithm>
#include <bit>
#include <random>

#include "qvx/format/wire.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t wordSize = 8;

KeyedHash::Key randomKey() {
    KeyedHash::Key key{};
    std::random_device random;
    std::ranges::generate(key, [&] { return static_cast<std::uint8_t>(random()); });
    return key;
}

// The names are those of the publication.
class SipHash {
public:
    explicit SipHash(const KeyedHash::Wide& key)
        : v0_(key[0] ^ 0x736f6d6570736575),
          v1_(key[1] ^ 0x646f72616e646f6d ^ 0xee),
          v2_(key[0] ^ 0x6c7967656e657261),
          v3_(key[1] ^ 0x7465646279746573) {}

    void add(std::uint64_t word) {
        v3_ ^= word;
        rounds<2>();
        v0_ ^= word;
    }

    KeyedHash::Wide finish() {
        v2_ ^= 0xee;
        const std::uint64_t first = finishHalf();
        v1_ ^= 0xdd;
        return {first, finishHalf()};
    }

private:
    std::uint64_t finishHalf() {
        rounds<4>();
        return v0_ ^ v1_ ^ v2_ ^ v3_;
    }

    template <int Count>
    void rounds() {
        for (int i = 0; i < Count; ++i) round();
    }

    void round() {
        v0_ += v1_;
        v2_ += v3_;
        v1_ = std::rotl(v1_, 13) ^ v0_;
        v3_ = std::rotl(v3_, 16) ^ v2_;
        v0_ = std::rotl(v0_, 32) + v3_;
        v2_ += v1_;
        v3_ = std::rotl(v3_, 21) ^ v0_;
        v1_ = std::rotl(v1_, 17) ^ v2_;
        v2_ = std::rotl(v2_, 32);
    }

    std::uint64_t v0_, v1_, v2_, v3_;
};

}  // namespace

KeyedHash::KeyedHash() : KeyedHash(randomKey()) {}

KeyedHash::KeyedHash(const Key& key)
    : key_{getLittleEndian<wordSize>(key.data()), getLittleEndian<wordSize>(&key[wordSize])} {}

KeyedHash::Wide KeyedHash::wide(Bytes text) const {
    SipHash hash(key_);
    Bytes rest = text;
    for (; rest.size() >= wordSize; rest = rest.subspan(wordSize)) hash.add(getLittleEndian<wordSize>(rest.data()));
    std::array<std::uint8_t, wordSize> last{};
    std::ranges::copy(rest, last.begin());
    last.back() = static_cast<std::uint8_t>(text.size());
    hash.add(getLittleEndian<wordSize>(last.data()));
    return hash.finish();
}

std::uint64_t KeyedHash::operator()(std::string_view text) const {
    return wide({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}).front();
}

}  // namespace tarnwick::qvx
