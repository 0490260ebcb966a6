// volctl: lists the volumes of this machine and where they are mounted; unlocks locked ones.
#include <limits>

#include "answers.h"
#include "companion.h"
#include "listing.h"
#include "plist/xml_property_list.h"
#include "qvx/crypto/openssl_environment.h"
#include "unlock.h"
#include "volume_lookup.h"

namespace {

using namespace tarnwick;

constexpr const char* program = "volctl";

struct Options {
    bool asPropertyList = false;
    bool asJson = false;
    std::string identifier;
    int keyDescriptor = -1;
};

using Command = std::function<Result<int>(const Machine&, const Options&)>;

Result<int> list(const Machine& machine, const Options& options) {
    if (!machine.settingsStatus) {
        auto warning = machine.settingsStatus.error();
        warning.subject = "warning: " + warning.subject;
        report(program, warning);
    }
    const auto volumes = findVolumes(machine);
    return print(options.asJson ? volumeJson(volumes) : volumeTable(volumes));
}

Result<int> listGroups(const Machine& machine, const Options& options) {
    if (!machine.settingsStatus) return machine.settingsStatus.error();
    const auto volumes = findVolumes(machine);
    if (!options.asPropertyList) return print(volumeTable(volumes));
    for (const auto& volume : volumes)
        if (!volume.exclusionReason.empty())
            report(program, {"left out: " + volume.exclusionReason, 0, volume.deviceIdentifier});
    return print(writeXmlPropertyList(groupListing(volumes)));
}

Result<int> information(const Volume& volume, const Options& options) {
    return print(options.asPropertyList ? writeXmlPropertyList(volumeInformation(volume)) : volumeTable({volume}));
}

Result<int> unlock(const Volume& volume, const Options& options) {
    const auto unlocked = unlockVolume(volume, options.keyDescriptor);
    return unlocked ? Result<int>(0) : unlocked.error();
}

Result<int> lock(const Volume& volume, const Options& options) {
    const auto undone = lockVolume(volume);
    if (!undone) return undone.error();
    if (!*undone) report(program, {"not unlocked by volctl, so nothing was done", 0, options.identifier});
    return 0;
}

// The command that runs `action` on the volume that the options name.
Command onVolume(Result<int> (*action)(const Volume&, const Options&)) {
    return [action](const Machine& machine, const Options& options) {
        const auto volume = lookUpVolume(machine, findVolumes(machine), options.identifier);
        return volume ? action(*volume, options) : volume.error();
    };
}

void declareCommands(CLI::App& app, Options& options, Command& chosen) {
    const auto addCommand = [&](CLI::App& parent, const char* name, const char* help, const Command& command) {
        auto* added = parent.add_subcommand(name, help);
        added->callback([&chosen, command] { chosen = command; });
        return added;
    };
    const auto addIdentifier = [&](CLI::App* command, const char* name) {
        command->add_option(name, options.identifier, "device name, mount point, volume name or Preboot")->required();
    };
    const auto addPropertyListFlag = [&](CLI::App* command) {
        command->add_flag("--plist", options.asPropertyList, "answer as an XML property list (also -plist)");
    };

    app.require_subcommand(1);
    addCommand(app, "list", "All volumes as a table", list)
        ->add_flag("--json", options.asJson, "one JSON object a volume");
    auto* infoCommand = addCommand(app, "info", "One volume", onVolume(information));
    addPropertyListFlag(infoCommand);
    addIdentifier(infoCommand, "ID");

    auto* zkfs = app.add_subcommand("zkfs", "Containers, groups and locked volumes");
    zkfs->require_subcommand(1);
    addPropertyListFlag(addCommand(*zkfs, "listGroups", "Containers, their groups and volumes", listGroups));
    auto* unlockCommand = addCommand(*zkfs, "unlockVolume", "Open and mount a volume, read-only", onVolume(unlock));
    addIdentifier(unlockCommand, "DEVICE");
    unlockCommand->add_option("--key-fd", options.keyDescriptor, "descriptor number to read the passphrase from")
        ->check(CLI::Range(0, std::numeric_limits<int>::max()));
    addIdentifier(addCommand(*zkfs, "lockVolume", "Undo what unlockVolume did", onVolume(lock)), "DEVICE");
}

// The parser supports long options with two dashes only; this one has always been written with one.
std::vector<std::string> withDoubleDash(std::vector<std::string> arguments) {
    std::replace(arguments.begin(), arguments.end(), std::string("-plist"), std::string("--plist"));
    return arguments;
}

int run(std::vector<std::string> arguments) {
    CLI::App app("Show the volumes of this machine and unlock them", program);
    Options options;
    Command chosen;
    declareCommands(app, options, chosen);
    return runCompanion(app, withDoubleDash(std::move(arguments)), [&]() -> Result<int> {
        const auto machine = thisMachine();
        return machine ? chosen(*machine, options) : machine.error();
    });
}

}  // namespace

int main(int count, char** values) {
    qvx::ignoreOpensslEnvironment();
    return companionMain(program, count, values, run);
}
