#include "volumes/consent.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>
#include <utility>

#include "log/execution_log.h"
#include "platform/internal_policies.h"

namespace tarnwick {

namespace fs = std::filesystem;

std::string pendingAnswer;

namespace {

constexpr auto recordOnVolume = "Library/Application Support/FaultKeeper/DiagnosticMessagesHistory.plist";

struct Verdict {
    ConsentState state = ConsentState::Indeterminate;
    std::string_view source = "filesystem consent";
};

Verdict decide(const PropertyListDictionary& record) {
    const auto stateOf = [](bool choice) { return choice ? ConsentState::Granted : ConsentState::ExplicitlyDenied; };
    if (const auto seed = lookupBoolean(record, "SeedAutoSubmit")) return {stateOf(*seed), "filesystem seed consent"};
    if (const auto choice = lookupBoolean(record, "AutoSubmit")) return {stateOf(*choice)};
    return {};
}

std::string_view wordFor(ConsentState state) {
    switch (state) {
        case ConsentState::Granted: return " is GRANTED";
        case ConsentState::ExplicitlyDenied: return " is EXPLICITLY DENIED";
        case ConsentState::Indeterminate: break;
    }
    return " is INDETERMINATE";
}

void traceVerdict(std::string_view source, const std::string& mountPoint, ConsentState state) {
    logTrace(std::string(source) + " for " + mountPoint + std::string(wordFor(state)));
}

std::optional<PropertyListDictionary> readRecord(const fs::path& path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) {
        logWarning("consent check failed: missing file - " + path.native());
        return std::nullopt;
    }
    auto record = readPropertyListFile(path);
    if (!record) logWarning("consent check failed: unable to parse file - " + path.native());
    return record;
}

}  // namespace

std::optional<bool> lookupBoolean(const PropertyListDictionary& dictionary, std::string_view key) {
    const auto* value = findValueAs<bool>(dictionary, key);
    return value ? std::optional(*value) : std::nullopt;
}

bool checkConsent(const VolumeInfo& volume, const RunOptions& options, bool& granted) {
    granted = false;
    if (internalPoliciesAllowed(subsystemIdentifier) && options.force) {
        granted = true;
        return true;
    }
    logTrace("checking consent for " + volume.mountPoint);
    const auto record = readRecord(fs::path(volume.mountPoint) / recordOnVolume);
    if (!record) return false;

    const Verdict verdict = decide(*record);
    traceVerdict(verdict.source, volume.mountPoint, verdict.state);
    granted = verdict.state == ConsentState::Granted;
    if (!granted && !options.nonInteractive) {
        granted = askOneTimeConsent();
        traceVerdict("ad-hoc consent", volume.mountPoint,
                     granted ? ConsentState::Granted : ConsentState::ExplicitlyDenied);
    }
    logInfo("\n");
    return true;
}

bool askOneTimeConsent() {
    const std::string rule(86, '#');
    std::cout << "\n"
              << rule << "\n"
              << "# \n"
              << "# This source volume does not allow collection of Diagnostics & Utilization data. \n"
              << "# Please indicate if you give one-time consent to collection of Diagnostics & Utilization data "
                 "for this volume.\n"
              << "# \n"
              << rule << "\n\n"
              << std::flush;
    return askYesNo("Do you agree? (yes/no)");
}

bool askYesNo(const std::string& question) {
    std::string answer;
    bool inputAvailable = true;
    while (answer != "yes" && answer != "no" && inputAvailable) {
        inputAvailable = readAnswerLine(question, answer);
        std::transform(answer.begin(), answer.end(), answer.begin(),
                       [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
    }
    return answer == "yes";
}

bool readAnswerLine(const std::string& question, std::string& answer) {
    answer.clear();
    std::cout << question << '\n' << std::flush;
    if (!pendingAnswer.empty()) {
        answer = std::exchange(pendingAnswer, {});
        return true;
    }
    return static_cast<bool>(std::getline(std::cin, answer));
}

}  // namespace tarnwick
