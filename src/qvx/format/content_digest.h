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

}  // namespace tarnwick::qvx
