// Ends a run with a message.
#pragma once

#include <stdexcept>
#include <string>

namespace tarnwick {

// The exception of raiseFatal. File-system errors of the standard library are runtime errors too and end a run in the
// same way, so main catches std::runtime_error and not this type.
class FatalError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Writes the bare message and a line end to standard output (not to the execution log), then throws FatalError.
[[noreturn]] void raiseFatal(const std::string& message);

}  // namespace tarnwick
