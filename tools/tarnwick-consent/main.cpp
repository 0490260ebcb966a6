// tarnwick-consent: shows and changes the consent records of this machine's data volumes.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/visible_text.h"
#include "platform/consent_record.h"
#include "record_file.h"
#include "volctl/volumes.h"
#include "volume_consent.h"

namespace {

using namespace tarnwick;

constexpr int failed = 1;
constexpr int badUsage = 2;
constexpr int overridden = 3;

struct Decision {
    const char* command;
    const char* help;
    ConsentState state;
};

constexpr std::array decisions{
    Decision{"grant", "Record that diagnostic data may be collected", ConsentState::Granted},
    Decision{"deny", "Record that diagnostic data may not be collected", ConsentState::ExplicitlyDenied},
    Decision{"ask", "Leave it open, so that each capture asks at the terminal", ConsentState::Indeterminate},
};

int complain(const std::string& problem) {
    std::fprintf(stderr, "tarnwick-consent: %s\n", visibleText(problem).c_str());
    return failed;
}

// Devices cannot be read without root, so that even showing would be wrong.
void requireRoot() {
    if (::geteuid() != 0) throw std::runtime_error("only root can do this: try again with sudo");
}

int print(const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    return written ? 0 : complain("cannot write the answer");
}

// With settings that cannot be followed, captures find no volume at all.
Machine machineWithSettings() {
    auto machine = thisMachine();
    if (!machine.settingsProblem.empty()) throw std::runtime_error(machine.settingsProblem);
    return machine;
}

bool isMountedAtRoot(const Volume& volume) {
    return std::find(volume.mountPoints.begin(), volume.mountPoints.end(), "/") != volume.mountPoints.end();
}

// In a chroot on a plain folder no mount is known at "/". A record made there is that of an image's root volume.
Volume unknownRoot() {
    Volume volume;
    volume.mountPoint = "/";
    volume.role = "Data";
    return volume;
}

Lookup lookUp(const Machine& machine, const std::vector<Volume>& volumes, const std::string& identifier) {
    if (identifier == "/" && std::none_of(volumes.begin(), volumes.end(), isMountedAtRoot)) return {unknownRoot(), {}};
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

int show(const std::vector<std::string>& identifiers, bool asJson) {
    requireRoot();
    const auto machine = machineWithSettings();
    const auto volumes = findVolumes(machine);
    auto shown = identifiers.empty() ? dataVolumes(volumes) : std::vector<Volume>{};
    int status = 0;
    for (const auto& identifier : identifiers) {
        const auto answer = lookUp(machine, volumes, identifier);
        if (answer.volume) {
            shown.push_back(*answer.volume);
        } else {
            status = complain(answer.problem);
        }
    }
    const auto all = consentOfAll(shown);
    return std::max(status, print(asJson ? consentJson(all) : consentTable(all)));
}

void requireChangeable(const Volume& volume) {
    const auto& device = volume.deviceIdentifier;
    if (!isDataVolume(volume))
        throw std::runtime_error(device + " is never captured: its role is " + volume.role +
                                 "; see Roles in volctl(8)");
    const auto problem = obstacle(volume);
    if (!problem.empty())
        throw std::runtime_error(device + " is " + problem +
                                 ": unlock it if needed, mount it for writing and try again");
}

// All volumes are looked up before the first record is changed.
std::vector<Volume> volumesToChange(const std::vector<std::string>& identifiers) {
    const auto machine = machineWithSettings();
    const auto volumes = findVolumes(machine);
    std::vector<Volume> found;
    for (const auto& identifier : identifiers) {
        auto answer = lookUp(machine, volumes, identifier);
        if (!answer.volume) throw std::runtime_error(answer.problem);
        found.push_back(std::move(*answer.volume));
    }
    std::for_each(found.begin(), found.end(), requireChangeable);
    return found;
}

int changeRecord(const std::string& mountPoint, ConsentState wanted) {
    ConsentState result = wanted;
    try {
        changeConsentRecord(mountPoint, [&](PropertyListDictionary& record) {
            record.erase(std::string(consentKey));
            if (wanted != ConsentState::Indeterminate)
                record[std::string(consentKey)] = PropertyListValue{wanted == ConsentState::Granted};
            result = decideConsent(record).state;
        });
    } catch (const RecordError& error) {
        return complain(mountPoint + ": " + error.what());
    }
    if (result == wanted) return 0;
    const auto path = std::filesystem::path(mountPoint) / consentRecordPath;
    complain(
        mountPoint +
        ": recorded, but without effect, because SeedAutoSubmit decides; to change that, remove SeedAutoSubmit from " +
        path.native());
    return overridden;
}

int change(const std::vector<std::string>& identifiers, ConsentState wanted) {
    requireRoot();
    const auto volumes = volumesToChange(identifiers.empty() ? std::vector<std::string>{"/"} : identifiers);
    bool someFailed = false, someOverridden = false;
    for (const auto& volume : volumes) {
        const int status = changeRecord(volume.mountPoint, wanted);
        someFailed |= status == failed;
        someOverridden |= status == overridden;
    }
    someFailed |= print(consentTable(consentOfAll(volumes))) != 0;
    return someFailed ? failed : someOverridden ? overridden : 0;
}

int run(int count, char** values) {
    CLI::App app("Show and change the consent records of this machine's data volumes", "tarnwick-consent");
    app.set_version_flag("--version", "tarnwick-consent " TARNWICK_VERSION, "print the version and end");
    app.require_subcommand(1);
    int status = 0;
    bool asJson = false;
    std::vector<std::string> identifiers;

    auto* showCommand = app.add_subcommand("show", "Show what is recorded");
    showCommand->add_flag("--json", asJson, "one JSON object a line");
    showCommand->add_option("VOLUME", identifiers,
                            "device name, mount point or volume name; without, all data volumes");
    showCommand->callback([&] { status = show(identifiers, asJson); });
    for (const auto& decision : decisions) {
        auto* command = app.add_subcommand(decision.command, decision.help);
        command->add_option("VOLUME", identifiers, "device name, mount point or volume name; without, the volume at /");
        command->callback([&] { status = change(identifiers, decision.state); });
    }

    try {
        app.parse(count, values);
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
