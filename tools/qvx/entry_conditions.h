// The conditions of `qvx find` on what the index has about an entry, in the manner of find(1).
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "qvx/format/index_codec.h"

namespace tarnwick::qvx {

// As the command line has them; empty for none.
struct ConditionTexts {
    std::string types;               // "f", or "f,d,l"
    std::string newer;               // a time or the path of a file
    std::vector<std::string> sizes;  // "+10M", "-1k" or "100c"; all of them must be met
};

class EntryConditions {
public:
    // The subject of an error is the text that is wrong. Reads the time of a file.
    static Result<EntryConditions> parse(const ConditionTexts& texts);

    [[nodiscard]] bool match(const IndexEntry& entry) const;

private:
    struct Size {
        std::strong_ordering order = std::strong_ordering::equal;  // of the size of an entry to `count`
        std::uint64_t count = 0;
        std::uint64_t unit = 1;  // bytes; sizes are rounded up to whole units

        [[nodiscard]] bool match(std::uint64_t bytes) const;
    };

    Status parseTypes(const std::string& text);
    Status parseNewer(const std::string& text);
    static std::optional<Size> parseSize(std::string_view text);

    std::string types_;  // letters
    std::optional<std::int64_t> newer_;
    std::vector<Size> sizes_;
};

}  // namespace tarnwick::qvx
