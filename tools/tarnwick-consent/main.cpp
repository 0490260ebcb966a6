// tarnwick-consent: shows and changes the consent records of this machine's data volumes.
#include <unistd.h>

#include <array>
#include <filesystem>
#include <iterator>

#include "companion.h"
#include "platform/consent_record.h"
#include "qvx/crypto/openssl_environment.h"
#include "record_file.h"
#include "volctl/volume_lookup.h"
#include "volume_consent.h"

namespace {

using namespace tarnwick;

constexpr const char* program = "tarnwick-consent";
constexpr int exitOverridden = 3;

struct Decision {
    const char* command;
    const char* help;
    ConsentState state;
};

constexpr std::array decisions{
    Decision{"grant", "Record that diagnostic data may be collected", ConsentState::Granted},
    Decision{"deny", "Record that diagnostic data may not be collected", ConsentState::ExplicitlyDenied},
    Decision{"ask", "Record no decision, so that each capture asks at the terminal", ConsentState::Indeterminate},
};

struct Options {
    bool asJson = false;
    std::vector<std::string> identifiers;
};

// Devices cannot be read without root, so even the states that are shown would be wrong.
Status requireRoot() { return ::geteuid() == 0 ? Status() : Error{"only root can do this: try again with sudo"}; }

// With settings that cannot be used, captures find no volume at all, so this is an error.
Result<Machine> machineWithSettings() {
    if (const auto root = requireRoot(); !root) return root.error();
    auto machine = thisMachine();
    if (machine && !machine->settingsStatus) return machine->settingsStatus.error();
    return machine;
}

// In a chroot on a plain folder no mount is known at "/". A record made there is that of an image's root volume.
Volume unknownRoot() {
    Volume volume;
    volume.mountPoint = "/";
    volume.role = "Data";
    return volume;
}

Result<Volume> lookUp(const Machine& machine, const std::vector<Volume>& volumes, const std::string& identifier) {
    const auto isRoot = [](const Volume& each) { return isMountedAt(each, "/"); };
    if (identifier == "/" && std::none_of(volumes.begin(), volumes.end(), isRoot)) return unknownRoot();
    return lookUpVolume(machine, volumes, identifier);
}

std::vector<Volume> dataVolumes(const std::vector<Volume>& volumes) {
    std::vector<Volume> found;
    std::copy_if(volumes.begin(), volumes.end(), std::back_inserter(found),
                 [](const Volume& volume) { return isDataVolume(volume) && volume.exclusionReason.empty(); });
    return found;
}

std::vector<VolumeConsent> consentOfAll(const std::vector<Volume>& volumes) {
    std::vector<VolumeConsent> all;
    std::transform(volumes.begin(), volumes.end(), std::back_inserter(all), consentOf);
    return all;
}

Result<int> show(const Options& options) {
    const auto machine = machineWithSettings();
    if (!machine) return machine.error();
    const auto volumes = findVolumes(*machine);
    auto shown = options.identifiers.empty() ? dataVolumes(volumes) : std::vector<Volume>{};
    int status = 0;
    for (const auto& identifier : options.identifiers) {
        const auto volume = lookUp(*machine, volumes, identifier);
        if (volume) {
            shown.push_back(*volume);
        } else {
            report(program, volume.error());
            status = exitFailed;
        }
    }
    const auto all = consentOfAll(shown);
    const auto printed = print(options.asJson ? consentJson(all) : consentTable(all));
    return printed ? status : printed;
}

Status requireChangeable(const Volume& volume) {
    const auto& device = volume.deviceIdentifier;
    if (!isDataVolume(volume))
        return Error{"never captured, since its role is " + volume.role + "; see Roles in volctl(8)", 0, device};
    if (const auto readable = requireMounted(volume); !readable)
        return Error{readable.error().text + "; unlock it if needed, mount it for writing and try again", 0, device};
    return {};
}

// All volumes are looked up before the first record is changed.
Result<std::vector<Volume>> volumesToChange(const std::vector<std::string>& identifiers) {
    const auto machine = machineWithSettings();
    if (!machine) return machine.error();
    const auto volumes = findVolumes(*machine);
    std::vector<Volume> found;
    for (const auto& identifier : identifiers) {
        const auto volume = lookUp(*machine, volumes, identifier);
        if (!volume) return volume.error();
        found.push_back(*volume);
    }
    for (const auto& volume : found)
        if (const auto changeable = requireChangeable(volume); !changeable) return changeable.error();
    return found;
}

// The state that the changed record has: not `wanted` if SeedAutoSubmit decides otherwise.
Result<ConsentState> recordDecision(const std::string& mountPoint, ConsentState wanted) {
    ConsentState result = wanted;
    const auto changed = changeConsentRecord(mountPoint, [&](PropertyListDictionary& record) {
        record.erase(std::string(consentKey));
        if (wanted != ConsentState::Indeterminate)
            record[std::string(consentKey)] = PropertyListValue{wanted == ConsentState::Granted};
        result = decideConsent(record).state;
    });
    return changed ? Result<ConsentState>(result) : changed.error();
}

// Changes one record and reports what went wrong. Returns the exit status.
int changeAndReport(const std::string& mountPoint, ConsentState wanted) {
    const auto result = recordDecision(mountPoint, wanted);
    if (!result) {
        report(program, {result.error().text, result.error().code, mountPoint});
        return exitFailed;
    }
    if (*result == wanted) return 0;
    const auto path = std::filesystem::path(mountPoint) / consentRecordPath;
    report(program, {"recorded, but SeedAutoSubmit overrides it; remove SeedAutoSubmit from " + path.native() +
                         " to change that",
                     0, mountPoint});
    return exitOverridden;
}

Result<int> change(const Options& options, ConsentState wanted) {
    const auto volumes =
        volumesToChange(options.identifiers.empty() ? std::vector<std::string>{"/"} : options.identifiers);
    if (!volumes) return volumes.error();
    bool someFailed = false, someOverridden = false;
    for (const auto& volume : *volumes) {
        const int status = changeAndReport(volume.mountPoint, wanted);
        someFailed |= status == exitFailed;
        someOverridden |= status == exitOverridden;
    }
    if (auto printed = print(consentTable(consentOfAll(*volumes))); !printed) return printed;
    return someFailed ? exitFailed : someOverridden ? exitOverridden : 0;
}

using Command = std::function<Result<int>(const Options&)>;

void declareCommands(CLI::App& app, Options& options, Command& chosen) {
    app.require_subcommand(1);
    auto* showCommand = app.add_subcommand("show", "Show what is recorded");
    showCommand->add_flag("--json", options.asJson, "one JSON object a line");
    showCommand->add_option("VOLUME", options.identifiers,
                            "device name, mount point or volume name; without, all data volumes");
    showCommand->callback([&chosen] { chosen = show; });
    for (const auto& decision : decisions) {
        auto* command = app.add_subcommand(decision.command, decision.help);
        command->add_option("VOLUME", options.identifiers,
                            "device name, mount point or volume name; without, the volume at /");
        command->callback([&] { chosen = [&](const Options& given) { return change(given, decision.state); }; });
    }
}

int run(std::vector<std::string> arguments) {
    CLI::App app("Show and change the consent records of this machine's data volumes", program);
    Options options;
    Command chosen;
    declareCommands(app, options, chosen);
    return runCompanion(app, std::move(arguments), [&] { return chosen(options); });
}

}  // namespace

int main(int count, char** values) {
    qvx::ignoreOpensslEnvironment();
    return companionMain(program, count, values, run);
}
