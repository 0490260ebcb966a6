// What a shell command prints.
#pragma once

#include <cstdio>
#include <string>

namespace tarnwick::test {

// What the command prints, and then its wait status when that is not 0.
inline std::string outputOf(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    for (int byte = fgetc(pipe); byte != EOF; byte = fgetc(pipe)) output.push_back(static_cast<char>(byte));
    const int status = pclose(pipe);
    return status == 0 ? output : output + "status " + std::to_string(status);
}

}  // namespace tarnwick::test
