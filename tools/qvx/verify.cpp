// qvx verify
#include <cstdio>
#include <memory>

#include "archive_access.h"
#include "commands.h"
#include "json_object.h"
#include "listing.h"
#include "progress.h"

namespace tarnwick::qvx {

namespace {

struct VerifyOptions : ArchivesOptions {
    bool json = false;
};

std::string faultJson(const ReadFault& fault) {
    JsonObject object;
    if (!fault.subject.empty()) object.text("entry", fault.subject);
    object.number("block", fault.block);
    object.number("position", fault.position);
    object.text("text", fault.text);
    return object.finish();
}

// What is found in one archive.
class Findings {
public:
    explicit Findings(const std::string& archive) : archive_(archive), sink_(escapedName(archiveName(archive))) {}

    void check(ArchiveReader& reader);
    void fail(const CommandError& error);  // the archive could not be opened
    void reportIncomplete() const;
    [[nodiscard]] ExitStatus status() const { return status_; }
    [[nodiscard]] std::string json() const;

private:
    void add(const ReadFault& fault);
    void findOtherDamage(ArchiveReader& reader, const ReadFault& first);

    const std::string& archive_;
    CheckSink sink_;
    JsonArray faults_;
    ExitStatus status_ = exitSuccess;
    bool readable_ = true;
};

void Findings::check(ArchiveReader& reader) {
    const auto outcome = reader.readAll(sink_);
    const ReadFault* fault = outcome.fault();
    if (!fault) return;
    status_ = exitFailed;
    add(*fault);
    if (reader.canSalvage())
        findOtherDamage(reader, *fault);
    else
        readable_ = fault->code == 0;
}

void Findings::add(const ReadFault& fault) {
    report(archiveError(archive_, fault));
    faults_.add(faultJson(fault));
}

// After the first damage, everything that can be found out about the rest. Salvage meets the first damage again.
void Findings::findOtherDamage(ArchiveReader& reader, const ReadFault& first) {
    const std::string known = archiveError(archive_, first).text;
    sink_.startAgain();
    const auto addOther = [&](const ReadFault& fault) {
        if (archiveError(archive_, fault).text != known) add(fault);
    };
    static_cast<void>(reader.salvage(sink_, addOther));  // the sink never stops it
}

void Findings::fail(const CommandError& error) {
    report(error);
    faults_.add(faultJson(readFault(error.text)));
    status_ = error.status;
    readable_ = error.code == 0 && error.status != exitUsage;
}

void Findings::reportIncomplete() const {
    if (status_ == exitSuccess && sink_.incomplete() > 0)
        report(escapedName(archiveName(archive_)) +
               ": intact; entries incomplete when they were captured: " + std::to_string(sink_.incomplete()));
}

std::string Findings::json() const {
    JsonObject object;
    object.text("archive", archiveName(archive_));
    object.text("status", !readable_                ? "unreadable"
                          : status_ == exitOtherKey ? "other key"
                          : status_ == exitSuccess  ? "intact"
                                                    : "damaged");
    object.number("entries", sink_.intact());
    object.number("bytes", sink_.bytes());
    object.number("incomplete", sink_.incomplete());
    object.raw("faults", faults_.finish());
    return object.finish();
}

CommandResult verifyOne(EVP_PKEY* key, const std::string& archive, bool json) {
    Findings findings(archive);
    const auto reader = openArchive(archive, key, ArchiveReader::Opening::intact, Access::inOrder);
    if (reader)
        findings.check(**reader);
    else
        findings.fail(reader.error());
    findings.reportIncomplete();
    if (json) std::puts(findings.json().c_str());
    const auto printed = finishOutput(archive, {});
    return printed ? findings.status() : printed;
}

CommandResult runVerify(const VerifyOptions& options) {
    if (options.json) shareTerminal();
    const auto key = loadKey(options.key);
    if (!key) return key.error();
    return forEachArchive(options.archives, [&](const auto& archive, const auto&) {
        return verifyOne(key->get(), archive, options.json);
    });
}

}  // namespace

CommandRun declareVerify(CommandOptions& command) {
    const auto options = std::make_shared<VerifyOptions>();
    command.addFlag("--json", options->json, "print one JSON object an archive");
    declareKey(command, options->key);
    declareProgress(command);
    declareArchives(command, options->archives);
    return [options] { return runVerify(*options); };
}

}  // namespace tarnwick::qvx
