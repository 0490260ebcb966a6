// How reading an archive ends, and the form in which readers report damage.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"

namespace tarnwick::qvx {

// What is wrong with an archive, and where, as far as that is known. The subject is the entryName() of an entry; it is
// empty when the damage is not about one entry.
struct ReadFault : Error {
    std::optional<std::uint64_t> block = std::nullopt;     // sequence number
    std::optional<std::uint64_t> position = std::nullopt;  // in the file, of that block's header
};

inline ReadFault readFault(std::string text) { return {{std::move(text)}}; }

// The path of an entry as messages show it: hostile bytes. The root directory has the empty path and becomes "/", which
// no other entry can be called, because no path begins with a slash.
inline std::string entryName(std::string_view path) { return path.empty() ? "/" : std::string(path); }

// Complete, stopped by the sink, or damaged. Only damage allocates memory, so that the outcome of every record can be
// returned in this form.
class [[nodiscard]] ReadOutcome {
public:
    ReadOutcome() = default;                                    // complete
    ReadOutcome(ReadFault fault) : fault_(std::move(fault)) {}  // NOLINT(google-explicit-constructor): for `return`
    static ReadOutcome stopped() { return fromSink(false); }

    // `accepted` is what a function of the sink has returned.
    static ReadOutcome fromSink(bool accepted) {
        ReadOutcome outcome;
        outcome.stopped_ = !accepted;
        return outcome;
    }

    explicit operator bool() const { return !stopped_ && !fault_; }  // complete
    [[nodiscard]] bool isStopped() const { return stopped_; }
    [[nodiscard]] const ReadFault* fault() const { return fault_ ? &*fault_ : nullptr; }  // null unless damaged

private:
    bool stopped_ = false;
    std::optional<ReadFault> fault_;
};

}  // namespace tarnwick::qvx
