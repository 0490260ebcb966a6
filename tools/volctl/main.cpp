// volctl: lists the volumes of this machine and where they are mounted; unlocks locked ones.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "answers.h"
#include "base/visible_text.h"
#include "listing.h"
#include "plist/xml_property_list.h"
#include "unlock.h"

namespace {

using namespace tarnwick;

constexpr int failed = 1;
constexpr int badUsage = 2;

int complain(const std::string& problem) {
    std::fprintf(stderr, "volctl: %s\n", visibleText(problem).c_str());
    return failed;
}

int print(const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    return written ? 0 : complain("cannot write the answer");
}

int list() {
    const auto machine = thisMachine();
    if (!machine.settingsProblem.empty()) complain("warning: " + machine.settingsProblem);
    return print(volumeTable(findVolumes(machine)));
}

int listGroups(bool asPropertyList) {
    const auto machine = thisMachine();
    if (!machine.settingsProblem.empty()) return complain(machine.settingsProblem);
    const auto volumes = findVolumes(machine);
    if (!asPropertyList) return print(volumeTable(volumes));
    for (const auto& volume : volumes)
        if (!volume.exclusionReason.empty())
            complain(volume.deviceIdentifier + " is left out: " + volume.exclusionReason);
    return print(writeXmlPropertyList(groupListing(volumes)));
}

int information(const std::string& identifier, bool asPropertyList) {
    const auto machine = thisMachine();
    const auto answer = lookUpVolume(machine, findVolumes(machine), identifier);
    if (!answer.volume) return complain(answer.problem);
    if (!asPropertyList) return print(volumeTable({*answer.volume}));
    return print(writeXmlPropertyList(volumeInformation(*answer.volume)));
}

int unlock(const std::string& identifier, int keyDescriptor) {
    const auto machine = thisMachine();
    const auto answer = lookUpVolume(machine, findVolumes(machine), identifier);
    if (!answer.volume) return complain(answer.problem);
    const auto problem = unlockVolume(*answer.volume, keyDescriptor);
    return problem.empty() ? 0 : complain(problem);
}

int lock(const std::string& identifier) {
    const auto machine = thisMachine();
    const auto answer = lookUpVolume(machine, findVolumes(machine), identifier);
    if (!answer.volume) return complain(answer.problem);
    bool undone = false;
    const auto problem = lockVolume(*answer.volume, undone);
    if (!problem.empty()) return complain(problem);
    if (!undone) complain(identifier + " was not unlocked by volctl, nothing done");
    return 0;
}

// The parser supports long options with two dashes only; this one has always been written with one.
std::vector<std::string> reversedArguments(int count, char** values) {
    std::vector<std::string> arguments(values + 1, values + count);
    for (auto& argument : arguments)
        if (argument == "-plist") argument = "--plist";
    return {arguments.rbegin(), arguments.rend()};
}

int run(int count, char** values) {
    CLI::App app("Show the volumes of this machine and unlock them", "volctl");
    app.set_version_flag("--version", "volctl " TARNWICK_VERSION, "print the version and end");
    app.require_subcommand(1);
    int status = 0;
    bool asPropertyList = false;
    std::string identifier;
    int keyDescriptor = -1;
    const auto takeIdentifier = [&](CLI::App* command, const char* name) {
        command->add_option(name, identifier, "device name, mount point, volume name or Preboot")->required();
    };
    const auto takePropertyList = [&](CLI::App* command) {
        command->add_flag("--plist", asPropertyList, "answer as an XML property list (also -plist)");
    };

    auto* listCommand = app.add_subcommand("list", "All volumes as a table");
    listCommand->callback([&] { status = list(); });
    auto* infoCommand = app.add_subcommand("info", "One volume");
    takePropertyList(infoCommand);
    takeIdentifier(infoCommand, "ID");
    infoCommand->callback([&] { status = information(identifier, asPropertyList); });

    auto* zkfs = app.add_subcommand("zkfs", "Containers, groups and locked volumes");
    zkfs->require_subcommand(1);
    auto* groupsCommand = zkfs->add_subcommand("listGroups", "Containers, their groups and volumes");
    takePropertyList(groupsCommand);
    groupsCommand->callback([&] { status = listGroups(asPropertyList); });
    auto* unlockCommand = zkfs->add_subcommand("unlockVolume", "Open and mount a volume, read-only");
    takeIdentifier(unlockCommand, "DEVICE");
    unlockCommand->add_option("--key-fd", keyDescriptor, "number of the descriptor that the passphrase is read from")
        ->check(CLI::NonNegativeNumber);
    unlockCommand->callback([&] { status = unlock(identifier, keyDescriptor); });
    auto* lockCommand = zkfs->add_subcommand("lockVolume", "Undo what unlockVolume did");
    takeIdentifier(lockCommand, "DEVICE");
    lockCommand->callback([&] { status = lock(identifier); });

    try {
        app.parse(reversedArguments(count, values));
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : badUsage;
    }
    return status;
}

}  // namespace

int main(int count, char** values) {
    try {
        return run(count, values);
    } catch (const std::exception& error) {
        return complain(error.what());
    }
}
