// Declares the options and arguments of one command. Only the source of this module sees the parser, whose header takes
// seconds to compile.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tarnwick::qvx {

// `names` is "-o,--option", or the NAME of an argument. A value must outlive the parsing.
class CommandOptions {
public:
    explicit CommandOptions(CLI::App& command) : command_(command) {}

    void add(const char* names, std::string& value, const char* help);
    void add(const char* names, std::vector<std::string>& values, const char* help);
    void add(const char* names, std::uint32_t& value, const char* help);
    void addRequired(const char* names, std::string& value, const char* help);
    void addRequired(const char* names, std::vector<std::string>& values, const char* help);    // one for each option
    void addRepeatable(const char* names, std::vector<std::string>& values, const char* help);  // the same
    void addRequiredList(const char* name, std::vector<std::string>& values, const char* help);
    // A value that is none of the choices is a wrong command line.
    void addChoice(const char* names, std::string& value, std::vector<std::string> choices, const char* help);
    void addFlag(const char* names, bool& flag, const char* help);

    // The two may not be given together. Both must have been added, with these names.
    void exclude(const char* first, const char* second);

private:
    CLI::App& command_;
};

}  // namespace tarnwick::qvx
