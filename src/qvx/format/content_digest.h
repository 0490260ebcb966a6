// SHA-256 of the content of an entry.
#pragma once

#include <memory>

#include "qvx/format/format.h"

struct evp_md_ctx_st;

namespace tarnwick::qvx {

// A running SHA-256. Throws std::bad_alloc when the library fails.
class ContentDigest {
public:
    ContentDigest();
    void restart();
    void add(Bytes bytes);
    void addZeros(std::uint64_t count);
    Digest finish();

private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const noexcept;
    };
    std::unique_ptr<evp_md_ctx_st, Free> context_;
};

// The sum of the holes in all entries with an announced digest, in the order in which the entries are stored. Any user
// can make a file that is one hole of exabytes; its digest would never be finished.
class DigestedZeros {
public:
    // Adds a hole. Whether the entry with it can still have a digest.
    bool add(std::uint64_t length) {
        exceeded_ = exceeded_ || length > maxDigestedZeros - sum_;
        if (!exceeded_) sum_ += length;
        return !exceeded_;
    }

private:
    std::uint64_t sum_ = 0;
    bool exceeded_ = false;
};

}  // namespace tarnwick::qvx
