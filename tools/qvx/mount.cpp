// qvx mount
#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "archive_access.h"
#include "background.h"
#include "byte_size.h"
#include "commands.h"
#include "fuse_mount.h"
#include "progress.h"

namespace tarnwick::qvx {

namespace {

struct MountOptions : ArchiveOptions {
    std::string folder;
    std::string cache = "64M";
    bool foreground = false;
};

// In the background, the working directory is another one. Fails when it is no directory.
Result<std::string> fullPath(const std::string& folder) {
    const FileDescriptor directory(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return systemError(errno, folder);
    const std::unique_ptr<char, FreeWith<std::free>> path(realpath(folder.c_str(), nullptr));
    if (!path) return systemError(errno, folder);
    return std::string(path.get());
}

Result<void, ReadFault> readTree(const MountOptions& options, ArchiveReader& reader, EntryTree& tree) {
    const auto add = [&](std::uint64_t number, const IndexEntry& entry) { return tree.add(entry, number), true; };
    const auto reportFault = [&](const ReadFault& fault) { report(archiveError(options.archive, fault)); };
    auto listed = reader.listIntact(add, reportFault);
    const std::string leftOut = std::to_string(tree.leftOut()) + " entries are left out, which no directory can hold";
    if (tree.leftOut() > 0) report(Error{leftOut, 0, archiveName(options.archive)});
    return listed;
}

CommandResult serve(const MountOptions& options, const std::string& folder, std::uint64_t cacheBytes,
                    const std::function<void()>& ready) {
    const auto reader = openArchive(options);
    if (!reader) return reader.error();
    EntryTree tree;
    if (const auto read = readTree(options, **reader, tree); !read) return archiveError(options.archive, read.error());
    const auto blocks = (*reader)->cacheBlocks(cacheBytes);
    EntryContents contents(*blocks, [&](std::uint64_t number) { return tree.locate(number); });
    const auto mounted = FuseMount::mount(folder, archiveName(options.archive), {tree, contents});
    if (!mounted) return CommandError{mounted.error()};
    endProgress();
    ready();
    if (const Status served = (*mounted)->serve(); !served) return CommandError{served.error()};
    return exitSuccess;
}

CommandResult runMount(const MountOptions& options) {
    const auto cacheBytes = parseSize(options.cache);
    if (!cacheBytes || *cacheBytes < BlockCache::minBytes)
        return CommandError{
            {"the size of the cache must be a number of bytes, with K, M, G or T, and at least 8M", 0, options.cache},
            exitUsage};
    const auto folder = fullPath(options.folder);
    if (!folder) return CommandError{folder.error()};
    const auto work = [&](const auto& ready) { return serve(options, *folder, *cacheBytes, ready); };
    return options.foreground ? work([] {}) : runInBackground(work);
}

}  // namespace

CommandRun declareMount(CommandOptions& command) {
    const auto options = std::make_shared<MountOptions>();
    command.add("--cache", options->cache, "keep so many bytes of opened blocks; with K, M, G or T, powers of 1024");
    command.addFlag("--foreground", options->foreground, "stay in the foreground; SIGINT unmounts");
    declareKeyAndArchive(command, *options);
    command.addRequired("FOLDER", options->folder, "where to mount");
    return [options] { return runMount(*options); };
}

}  // namespace tarnwick::qvx
