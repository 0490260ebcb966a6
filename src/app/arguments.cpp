#include "app/arguments.h"

namespace tarnwick {

ArgumentMap parseArguments(int argc, const char* const* argv) {
    ArgumentMap arguments;
    std::vector<std::string>* values = nullptr;  // of the option being read
    for (int i = 0; i < argc; ++i) {
        const std::string token = argv[i];
        if (token.starts_with('-')) {
            values = &arguments[token];
        } else if (values) {
            values->push_back(token);
        }
    }
    return arguments;
}

}  // namespace tarnwick
