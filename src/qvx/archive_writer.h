// Writes an archive that is sealed to the holders of P-256 private keys. docs/qvx-format.md describes the format;
// qvx/archive_reader.h reads it.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/handle.h"
#include "qvx/format/header_seal.h"
#include "qvx/write/archive_encoder.h"
#include "qvx/write/block_stream.h"
#include "qvx/write/path_list.h"

namespace tarnwick::qvx {

// One archive. If the writer is destroyed before write() succeeds, the archive is truncated, and readers refuse it. For
// one thread at a time. Throws std::bad_alloc, and std::system_error when a thread cannot be started.
class ArchiveWriter {
public:
    // Receives the bytes of the archive in order. Called by the thread of the caller or by one of the writer, but never
    // by two at the same time.
    using Sink = BlockStream::Sink;

    // Writes the header to `sink` and starts exactly `sealers` threads, which compress and seal, each with about 7 MiB
    // of memory. Fails unless there are 1 to maxRecipients different recipients, all on the curve. If `secrets` is
    // null, new ones are made; only tests pass them, to get the same bytes every time.
    static Result<ArchiveWriter> open(std::span<const Point> recipients, unsigned sealers, Sink sink,
                                      const ArchiveSecrets* secrets = nullptr);

    // Reads every entry of `list` from the disk with exactly `readers` threads and completes the archive; can be called
    // once. On success the whole archive has been given to the sink. A file that shrinks or grows while it is read is
    // stored as it was read. A file that exists but cannot be read in full (EIO, EACCES) is stored as far as possible.
    // Such entries are incomplete; write() returns them in ascending order. With Unreadable::fail, the first one that
    // is reached is a failure. A file that has vanished or is no longer what the list says is a failure, and the error
    // names it. A guarded entry is opened only in the directory in which it was listed, even if another directory has
    // that path by now. If the name in that directory belongs to another file by now, that file is stored, because logs
    // are rotated; but it must be of the same kind, on the same device, and without a second link.
    Result<std::vector<IncompleteEntry>> write(const PathList& list, FieldMask fields, unsigned readers,
                                               Unreadable unreadable = Unreadable::mark, EncodingReports reports = {});

private:
    ArchiveWriter(std::vector<std::uint8_t> header, std::unique_ptr<BlockStream> blocks, Sink sink)
        : header_(std::move(header)), sink_(std::move(sink)), blocks_(std::move(blocks)) {}

    std::vector<std::uint8_t> header_;
    Sink sink_;
    std::unique_ptr<BlockStream> blocks_;
    bool used_ = false;
};

// Opens a regular file for an archive; a symbolic link in the last component is not followed. The mode does not depend
// on the umask.
Result<FileDescriptor> openArchiveForWriting(const std::string& path, int openFlags, mode_t mode);

// A sink that writes to an open file, which the caller keeps open. Its errors are about `path`.
ArchiveWriter::Sink fileSink(int file, std::string path);

}  // namespace tarnwick::qvx
