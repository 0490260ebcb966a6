// The commands of qvx. A new one is a file that defines its function, and a row of the table.
#pragma once

#include <functional>

#include "command_options.h"
#include "report.h"

namespace tarnwick::qvx {

// Runs a command with the options that were parsed.
using CommandRun = std::function<CommandResult()>;

// Each declares the options of its command, and returns the function that runs it.
CommandRun declareCreate(CommandOptions& command);
CommandRun declareList(CommandOptions& command);
CommandRun declareFind(CommandOptions& command);
CommandRun declareGrep(CommandOptions& command);
CommandRun declareVerify(CommandOptions& command);
CommandRun declareDiff(CommandOptions& command);
CommandRun declareExtract(CommandOptions& command);
CommandRun declareTar(CommandOptions& command);
CommandRun declareCat(CommandOptions& command);
CommandRun declareMount(CommandOptions& command);
CommandRun declareInfo(CommandOptions& command);
CommandRun declareRekey(CommandOptions& command);
CommandRun declareKeygen(CommandOptions& command);

struct Command {
    const char* name;
    const char* purpose;
    CommandRun (*declare)(CommandOptions& command);
};

inline constexpr Command commands[] = {
    {"create", "make an archive of the paths", declareCreate},
    {"list", "print the entries", declareList},
    {"find", "print the entries whose path matches a pattern", declareFind},
    {"grep", "print the lines of files that match an expression", declareGrep},
    {"verify", "check everything", declareVerify},
    {"diff", "print how the entries of two archives differ", declareDiff},
    {"extract", "put entries on disk", declareExtract},
    {"tar", "write entries as a tar stream to standard output", declareTar},
    {"cat", "write the content of files to standard output", declareCat},
    {"mount", "show the entries as a file system", declareMount},
    {"info", "print what can be read without the key", declareInfo},
    {"rekey", "copy an archive for other recipients", declareRekey},
    {"keygen", "make a key pair, NAME.pem and NAME.pub", declareKeygen},
};

}  // namespace tarnwick::qvx
