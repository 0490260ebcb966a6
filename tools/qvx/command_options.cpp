#include "command_options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <utility>

namespace tarnwick::qvx {

void CommandOptions::add(const char* names, std::string& value, const char* help) {
    command_.add_option(names, value, help);
}

void CommandOptions::add(const char* names, std::vector<std::string>& values, const char* help) {
    command_.add_option(names, values, help);
}

void CommandOptions::add(const char* names, std::uint32_t& value, const char* help) {
    command_.add_option(names, value, help);
}

void CommandOptions::addRequired(const char* names, std::string& value, const char* help) {
    command_.add_option(names, value, help)->required();
}

void CommandOptions::addRequired(const char* names, std::vector<std::string>& values, const char* help) {
    command_.add_option(names, values, help)->required()->allow_extra_args(false);
}

void CommandOptions::addRequiredList(const char* name, std::vector<std::string>& values, const char* help) {
    command_.add_option(name, values, help)->required();
}

void CommandOptions::addRepeatable(const char* names, std::vector<std::string>& values, const char* help) {
    command_.add_option(names, values, help)->allow_extra_args(false);
}

void CommandOptions::addChoice(const char* names, std::string& value, std::vector<std::string> choices,
                               const char* help) {
    const auto check = [choices = std::move(choices)](const std::string& given) -> std::string {
        if (std::ranges::find(choices, given) != choices.end()) return {};
        std::string text;
        for (const auto& choice : choices) text += (text.empty() ? "must be " : " or ") + choice;
        return text + ", not " + given;
    };
    command_.add_option(names, value, help)->check(check);
}

void CommandOptions::addFlag(const char* names, bool& flag, const char* help) { command_.add_flag(names, flag, help); }

void CommandOptions::exclude(const char* first, const char* second) {
    command_.get_option(second)->excludes(command_.get_option(first));
}

}  // namespace tarnwick::qvx
