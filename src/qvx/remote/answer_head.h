// What the head of an HTTP answer says about the object: hostile bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwick::qvx {

struct ObjectState {
    std::uint64_t size = 0;
    std::string tag;       // the entity tag; empty if the server states none
    std::string modified;  // when it was changed, in the words of the server

    // Whether the bytes of the object are the same. Servers that share the work may disagree about the time.
    [[nodiscard]] bool isSame(const ObjectState& other) const {
        return size == other.size && tag == other.tag && (!tag.empty() || modified == other.modified);
    }
};

struct AnswerHead {
    std::optional<std::uint64_t> begin;  // position of the first byte of the body; none if the answer is not a range
    ObjectState object;

    // Reads one line. The status line begins the head anew, because that of a redirect came before.
    void add(std::string_view line);
};

}  // namespace tarnwick::qvx
