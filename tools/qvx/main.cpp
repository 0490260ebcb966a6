// qvx: creates, lists, checks and extracts archives sealed to the owner of a P-256 key.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "create.h"
#include "interruption.h"
#include "key_files.h"
#include "listing.h"
#include "qvx/archive_reader.h"
#include "qvx/crypto/ssh_key.h"
#include "qvx/extract/disk_sink.h"
#include "report.h"

using namespace tarnwick;
using namespace tarnwick::qvx;

namespace {

struct Options {
    CreateOptions create;
    std::string key;
    std::string archive;
    std::string directory = ".";
    std::string name;
    std::vector<std::string> paths;
    bool json = false;
    bool salvage = false;
};

std::string describe(const ReadFault& fault) {
    std::string text = fault.path ? (fault.path->empty() ? "/" : escapedName(*fault.path)) + ": " : "";
    if (fault.block) text += "block " + std::to_string(*fault.block);
    if (fault.position) text += (fault.block ? " at position " : "position ") + std::to_string(*fault.position);
    if (fault.block || fault.position) text += ": ";
    return text + fault.what;
}

int sayFault(const Options& options, const ReadFault& fault) {
    say(escapedName(options.archive) + ": " + describe(fault));
    return exitFailed;
}

// O_NONBLOCK, because opening a FIFO in place of the archive would block forever.
std::unique_ptr<ArchiveFile> openFile(const Options& options) {
    ReadFault fault;
    FileDescriptor descriptor(open(options.archive.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!descriptor) fault.what = std::strerror(errno);
    auto file = descriptor ? ArchiveFile::open(std::move(descriptor), fault) : nullptr;
    if (!file) sayFault(options, fault);
    return file;
}

// Opens the archive with the key and calls `work`, which returns the exit status.
int withArchive(const Options& options, const std::function<int(ArchiveReader&)>& work) {
    auto file = openFile(options);
    if (!file) return exitFailed;
    const auto key = loadPrivateKey(options.key);
    const auto point = publicPointOf(key.get());
    if (!point) return exitFailed;
    if (sshFingerprint(*point) != file->header().recipient) {
        say(escapedName(options.archive) + ": sealed to another key, " + fingerprintText(file->header().recipient) +
            "; this one is " + fingerprintText(sshFingerprint(*point)));
        return exitOtherKey;
    }
    ReadFault fault;
    const auto reader = ArchiveReader::open(std::move(file), key.get(), fault);
    return reader ? work(*reader) : sayFault(options, fault);
}

// The output counts only when all of it was written.
int finishOutput(bool good, const Options& options, const ReadFault& fault) {
    const bool written = std::fflush(stdout) == 0 && !std::ferror(stdout);
    if (!written) sayError("standard output", errno);
    if (!good && !fault.what.empty()) sayFault(options, fault);
    return good && written ? exitFine : exitFailed;
}

int runList(const Options& options) {
    return withArchive(options, [&](ArchiveReader& reader) {
        ReadFault fault;
        if (options.json) {
            JsonSink sink;
            return finishOutput(reader.readAll(sink, fault), options, fault);
        }
        const auto print = [](std::uint64_t, const IndexEntry& entry) {
            return std::puts(listingLine(entry).c_str()) >= 0;
        };
        return finishOutput(reader.list(print, fault), options, fault);
    });
}

// Reports the first damage, then everything that can be found out about the rest.
int sayDamage(const Options& options, ArchiveReader& reader, const ReadFault& first, CheckSink& sink) {
    sayFault(options, first);
    reader.salvage(sink, [&](const ReadFault& fault) {
        if (describe(fault) != describe(first)) sayFault(options, fault);
    });
    return exitFailed;
}

int runVerify(const Options& options) {
    return withArchive(options, [&](ArchiveReader& reader) {
        CheckSink sink(escapedName(options.archive));
        ReadFault fault;
        if (!reader.readAll(sink, fault)) return sayDamage(options, reader, fault, sink);
        if (sink.incomplete() > 0)
            say(escapedName(options.archive) +
                ": intact; entries incomplete when they were captured: " + std::to_string(sink.incomplete()));
        return int{exitFine};
    });
}

// The path in the form of an entry: without slashes at the beginning and the end.
std::string entryPath(std::string path) {
    path.erase(0, std::min(path.find_first_not_of('/'), path.size()));
    path.erase(path.find_last_not_of('/') + 1);
    return path.starts_with("./") ? entryPath(path.substr(2)) : path;
}

bool isAtOrBelow(std::string_view path, std::string_view top) {
    return top.empty() || (path.starts_with(top) && (path.size() == top.size() || path[top.size()] == '/'));
}

bool extractChosen(const Options& options, ArchiveReader& reader, DiskSink& sink, ReadFault& fault) {
    std::vector<std::string> tops;
    for (const auto& path : options.paths) tops.push_back(entryPath(path));
    std::vector<bool> met(tops.size());
    const auto chosen = [&](std::uint64_t, std::string_view path) {
        bool any = false;
        for (std::size_t i = 0; i < tops.size(); ++i) {
            if (!isAtOrBelow(path, tops[i])) continue;
            any = true;
            met[i] = true;
        }
        return any;
    };
    std::uint64_t taken = 0;
    if (!reader.readChosen(chosen, sink, taken, fault)) return false;
    fault = {};  // a missing entry is not damage of the archive
    bool all = true;
    for (std::size_t i = 0; i < tops.size(); ++i) {
        if (met[i]) continue;
        say(escapedName(options.paths[i]) + ": not in the archive");
        all = false;
    }
    return all;
}

int runExtract(const Options& options) {
    const FileDescriptor directory(open(options.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        sayError(escapedName(options.directory), errno);
        return exitFailed;
    }
    return withArchive(options, [&](ArchiveReader& reader) {
        watchForInterruption();
        DiskSink sink(directory.get(), {.keepIncomplete = options.salvage,
                                        .report = [](const Error& problem) { say(problem); },
                                        .interrupted = interrupted});
        ReadFault fault;
        bool good = true;
        if (options.salvage) {
            const auto report = [&](const ReadFault& found) { good = sayFault(options, found) == exitFine; };
            good = reader.salvage(sink, report) && good;
        } else {
            good = options.paths.empty() ? reader.readAll(sink, fault) : extractChosen(options, reader, sink, fault);
        }
        sink.finishDirectories();
        if (!good && !fault.what.empty()) {
            sayFault(options, fault);
            say("extraction ended there; with --salvage it takes what is whole");
        }
        if (interrupted()) say("interrupted");
        return int{good && !sink.failed() && !interrupted() ? exitFine : exitFailed};
    });
}

int runCat(const Options& options) {
    return withArchive(options, [&](ArchiveReader& reader) {
        const std::string wanted = entryPath(options.paths.front());
        std::optional<std::uint64_t> last;  // of several entries with one path, the last one is used
        ReadFault fault;
        const auto look = [&](std::uint64_t number, const IndexEntry& entry) {
            if (entry.path == wanted) last = number;
            return true;
        };
        if (!reader.list(look, fault)) return sayFault(options, fault);
        if (!last) {
            say(escapedName(options.paths.front()) + ": not in the archive");
            return int{exitFailed};
        }
        OutputSink sink;
        std::uint64_t taken = 0;
        const auto chosen = [&](std::uint64_t number, std::string_view) { return number == *last; };
        const int status = finishOutput(reader.readChosen(chosen, sink, taken, fault), options, fault);
        return sink.incomplete() ? int{exitFailed} : status;
    });
}

int runInfo(const Options& options) {
    const auto file = openFile(options);
    if (!file) return exitFailed;
    std::printf("format       qvx version %u\n", unsigned{formatVersion});
    std::printf("sealing      profile %u: HPKE, DHKEM(P-256, HKDF-SHA256), HKDF-SHA256, AES-256-GCM\n",
                unsigned{profileHpke});
    std::printf("compression  %u: Zstandard, blocks of %u bytes in groups of %u\n", unsigned{compressionZstd},
                unsigned{blockSize}, unsigned{file->header().groupLength});
    std::printf("recipient    %s\n", fingerprintText(file->header().recipient).c_str());
    std::printf("size         %llu bytes\n", static_cast<unsigned long long>(file->size()));
    return finishOutput(true, options, {});
}

int runCreate(const Options& options) {
    if (options.create.paths.empty() && options.create.namesFrom.empty()) {
        say("there is nothing to put into the archive");
        return exitUsage;
    }
    return createArchive(options.create) == Creation::complete ? exitFine : exitFailed;
}

int runKeygen(const Options& options) { return makeKeyFiles(options.name) ? exitFine : exitFailed; }

using Command = int (*)(const Options&);

// Declares a command; parsing it sets `chosen`.
CLI::App* declare(CLI::App& app, const char* name, const char* purpose, Command command, Command& chosen) {
    auto* declared = app.add_subcommand(name, purpose);
    declared->callback([command, &chosen] { chosen = command; });
    return declared;
}

void declareCommands(CLI::App& app, Options& options, Command& chosen) {
    auto* create = declare(app, "create", "make an archive of the paths", runCreate, chosen);
    create->add_option("-r,--recipient", options.create.recipient, "key line, or a file that holds one")->required();
    create->add_option("-o,--output", options.create.output, "the archive to make")->required();
    create->add_option("--files0-from", options.create.namesFrom, "file of names ending with a zero byte, - for input");
    create->add_option("PATH", options.create.paths, "what to put in; directories with all below them");

    auto* list = declare(app, "list", "print the entries", runList, chosen);
    list->add_flag("--json", options.json, "one JSON object an entry, with everything but the content");
    auto* verify = declare(app, "verify", "check everything", runVerify, chosen);
    auto* extract = declare(app, "extract", "put entries on disk", runExtract, chosen);
    extract->add_option("-C,--directory", options.directory, "where to; the working directory otherwise");
    auto* salvage = extract->add_flag("--salvage", options.salvage, "save what is whole in a damaged archive");
    auto* cat = declare(app, "cat", "write the content of a file to standard output", runCat, chosen);
    auto* info = declare(app, "info", "print what can be read without the key", runInfo, chosen);
    for (auto* command : {list, verify, extract, cat})
        command->add_option("-k,--key", options.key, "private key file in PEM form")->required();
    for (auto* command : {list, verify, extract, cat, info})
        command->add_option("ARCHIVE", options.archive, "the archive")->required();
    extract->add_option("PATH", options.paths, "entries to take, with all below them; otherwise all")
        ->excludes(salvage);
    cat->add_option("PATH", options.paths, "the file")->required()->expected(1);

    auto* keygen = declare(app, "keygen", "make a key pair, NAME.pem and NAME.pub", runKeygen, chosen);
    keygen->add_option("-o,--output", options.name, "NAME: where the files go, without .pem and .pub")->required();
}

int run(int argc, char** argv) {
    CLI::App app("Make, list, check and unpack sealed archives", "qvx");
    app.set_version_flag("--version", "qvx " TARNWICK_VERSION, "print the version and end");
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return "qvx: " + escapedName(error.what()) + "; see qvx --help\n";
    });
    Options options;
    Command chosen = nullptr;
    declareCommands(app, options, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitFine : exitUsage;
    }
    return chosen(options);
}

// The next file that is opened gets the number of a closed standard stream, and messages would be written into it.
void occupyStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));
}

}  // namespace

int main(int argc, char** argv) {
    // When the reader of the output closes it, the write fails and is handled; the signal would end the process
    // silently.
    std::signal(SIGPIPE, SIG_IGN);
    occupyStandardStreams();
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        say("out of memory");
    } catch (const std::exception& error) {
        say(escapedName(error.what()));
    }
    return exitFailed;
}
