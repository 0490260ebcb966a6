#include "volumes/consent.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string_view>
#include <utility>

#include "log/execution_log.h"
#include "platform/consent_record.h"
#include "platform/internal_policies.h"

namespace tarnwick {

namespace fs = std::filesystem;

std::string pendingAnswer;

namespace {

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
    std::error_code error;  // a status that cannot be read counts as a missing file
    if (!fs::is_regular_file(path, error)) {
        logWarning("consent check failed: missing file - " + path.native());
        return std::nullopt;
    }
    auto record = readPropertyListFile(path);
    if (!record) logWarning("consent check failed: unable to parse file - " + path.native());
    return record;
}

}  // namespace

bool checkConsent(const VolumeInfo& volume, const RunOptions& options, bool& granted) {
    granted = false;
    if (internalPoliciesAllowed(subsystemIdentifier) && options.force) {
        granted = true;
        return true;
    }
    logTrace("checking consent for " + volume.mountPoint);
    const auto record = readRecord(fs::path(volume.mountPoint) / consentRecordPath);
    if (!record) return false;

    const auto decision = decideConsent(*record);
    traceVerdict(decision.fromSeed ? "filesystem seed consent" : "filesystem consent", volume.mountPoint,
                 decision.state);
    granted = decision.state == ConsentState::Granted;
    if (!granted && !options.nonInteractive) {
        granted = askOneTimeConsent();
        traceVerdict("ad-hoc consent", volume.mountPoint,
                     granted ? ConsentState::Granted : ConsentState::ExplicitlyDenied);
    }
    logInfo("\n");  // separates the volumes
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
    // Without a check for the end of the input, a closed terminal would repeat the question forever.
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
