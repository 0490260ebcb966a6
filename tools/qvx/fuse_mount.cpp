#include "fuse_mount.h"

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "interruption.h"
#include "report.h"

namespace tarnwick::qvx {

namespace {

using NodeId = EntryTree::NodeId;

constexpr double forever = 1e9;  // seconds: nothing changes, so the kernel may keep what it knows

constexpr std::size_t maxVectors = IOV_MAX - 1;  // the library adds one for its header

// Positions in a directory: that of an entry is its id, and no entry has the id of these.
constexpr off_t firstPosition = 0;
constexpr off_t parentPosition = EntryTree::root;
constexpr off_t endPosition = off_t{1} << 32;

MountedEntries& entriesOf(fuse_req_t request) { return *static_cast<MountedEntries*>(fuse_req_userdata(request)); }

mode_t typeBits(EntryType type) {
    switch (type) {
        case EntryType::file: return S_IFREG;
        case EntryType::directory: return S_IFDIR;
        case EntryType::link: return S_IFLNK;
    }
    return 0;
}

struct stat statusOf(const EntryTree& tree, NodeId id) {
    const auto& node = tree.at(id);
    struct stat status {};
    status.st_ino = id;
    status.st_mode = typeBits(node.type) | node.mode;
    status.st_nlink = 1;  // as on other file systems that do not count the links of a directory
    status.st_uid = node.userId;
    status.st_gid = node.groupId;
    status.st_size = static_cast<off_t>(node.size);
    status.st_blocks = static_cast<blkcnt_t>(node.size / 512 + (node.size % 512 != 0 ? 1 : 0));
    status.st_atim.tv_sec = status.st_mtim.tv_sec = status.st_ctim.tv_sec = node.modified;
    return status;
}

fuse_entry_param parametersOf(const EntryTree& tree, NodeId id) {
    fuse_entry_param entry{};
    entry.ino = id;
    entry.attr = statusOf(tree, id);
    entry.attr_timeout = entry.entry_timeout = forever;
    return entry;
}

std::shared_ptr<EntryContent> contentOf(const MountedEntries& entries, NodeId id) {
    const auto& node = entries.tree.at(id);
    return entries.contents.get({node.number, node.type, entries.tree.pathOf(id), node.size});
}

void initialize(void*, fuse_conn_info* connection) {
    connection->want |= connection->capable & (FUSE_CAP_READDIRPLUS | FUSE_CAP_CACHE_SYMLINKS);
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_READDIRPLUS_AUTO);
}

// After this answer, the kernel opens files without asking, and keeps what it has read of them.
void open(fuse_req_t request, fuse_ino_t, fuse_file_info*) { fuse_reply_err(request, ENOSYS); }

void openDirectory(fuse_req_t request, fuse_ino_t, fuse_file_info* info) {
    info->cache_readdir = 1;
    info->keep_cache = 1;
    fuse_reply_open(request, info);
}

void lookUp(fuse_req_t request, fuse_ino_t parent, const char* name) {
    const auto& tree = entriesOf(request).tree;
    const auto id = tree.find(static_cast<NodeId>(parent), name);
    fuse_entry_param absent{};  // with this answer, the kernel remembers that there is no such entry
    absent.entry_timeout = forever;
    const auto entry = id == EntryTree::none ? absent : parametersOf(tree, id);
    fuse_reply_entry(request, &entry);
}

void getAttributes(fuse_req_t request, fuse_ino_t id, fuse_file_info*) {
    const auto status = statusOf(entriesOf(request).tree, static_cast<NodeId>(id));
    fuse_reply_attr(request, &status, forever);
}

// The error is for the reader of this program's messages; the kernel knows only EIO.
void refuse(fuse_req_t request, const Error& error) {
    report(error);
    fuse_reply_err(request, EIO);
}

void readLink(fuse_req_t request, fuse_ino_t id) {
    const auto& entries = entriesOf(request);
    const auto content = contentOf(entries, static_cast<NodeId>(id));
    std::vector<std::uint8_t> target(maxTargetLength + 1);
    const auto length = content->read(0, target);
    if (!length) return refuse(request, length.error());
    const bool valid = *length > 0 && *length <= maxTargetLength &&
                       std::find(target.data(), target.data() + *length, 0) == target.data() + *length;
    if (!valid)
        return refuse(request, {"the target of the link is missing or malformed", 0,
                                entries.tree.pathOf(static_cast<NodeId>(id))});
    fuse_reply_readlink(request, reinterpret_cast<const char*>(target.data()));
}

// The parts for the kernel, which copies from them.
std::vector<iovec> vectorsOf(const std::vector<EntryContent::Part>& parts) {
    static constexpr std::array<std::uint8_t, 65536> zeros{};
    std::vector<iovec> vectors;
    const auto add = [&](Bytes bytes) {
        vectors.push_back({const_cast<std::uint8_t*>(bytes.data()), bytes.size()});  // the kernel only reads
    };
    for (const auto& part : parts) {
        if (!part.bytes.empty()) add(part.bytes);
        for (std::uint64_t left = part.bytes.empty() ? part.length : 0; left > 0; left -= vectors.back().iov_len)
            add(Bytes(zeros).first(static_cast<std::size_t>(std::min<std::uint64_t>(left, zeros.size()))));
    }
    return vectors;
}

// For content in more parts than the kernel accepts.
void replyWithCopy(fuse_req_t request, const std::vector<iovec>& vectors) {
    std::vector<char> bytes;
    for (const iovec& vector : vectors) {
        const auto* begin = static_cast<const char*>(vector.iov_base);
        bytes.insert(bytes.end(), begin, begin + vector.iov_len);
    }
    fuse_reply_buf(request, bytes.data(), bytes.size());
}

void read(fuse_req_t request, fuse_ino_t id, std::size_t size, off_t position, fuse_file_info*) {
    const auto content = contentOf(entriesOf(request), static_cast<NodeId>(id));
    const auto parts = content->parts(static_cast<std::uint64_t>(position), size);
    if (!parts) return refuse(request, parts.error());
    const auto vectors = vectorsOf(*parts);
    if (vectors.size() > maxVectors) return replyWithCopy(request, vectors);
    fuse_reply_iov(request, vectors.data(), static_cast<int>(vectors.size()));
}

// Fills a reply with entries of a directory, each with the position after it.
class DirectoryReply {
public:
    DirectoryReply(fuse_req_t request, std::size_t size, bool withAttributes)
        : request_(request), tree_(entriesOf(request).tree), bytes_(size), withAttributes_(withAttributes) {}

    void fill(NodeId directory, off_t position) {
        if (position == firstPosition && !add(".", directory, parentPosition)) return;
        if (position <= parentPosition && !add("..", tree_.at(directory).parent, firstOf(directory))) return;
        if (position <= parentPosition) position = firstOf(directory);
        while (position != endPosition) {
            const auto id = static_cast<NodeId>(position);
            const auto next = tree_.nextSibling(id);
            position = next == EntryTree::none ? endPosition : off_t{next};
            if (!add(tree_.at(id).name, id, position)) return;
        }
    }
    void send() { fuse_reply_buf(request_, bytes_.data(), used_); }

private:
    [[nodiscard]] off_t firstOf(NodeId directory) const {
        const auto first = tree_.firstChild(directory);
        return first == EntryTree::none ? endPosition : off_t{first};
    }

    // Whether it fits.
    bool add(const char* name, NodeId id, off_t next) {
        char* const out = bytes_.data() + used_;
        const std::size_t left = bytes_.size() - used_;
        const auto entry = parametersOf(tree_, id);
        const std::size_t length = withAttributes_ ? fuse_add_direntry_plus(request_, out, left, name, &entry, next)
                                                   : fuse_add_direntry(request_, out, left, name, &entry.attr, next);
        if (length > left) return false;
        used_ += length;
        return true;
    }

    fuse_req_t request_;
    const EntryTree& tree_;
    std::vector<char> bytes_;
    std::size_t used_ = 0;
    bool withAttributes_;
};

template <bool withAttributes>
void readDirectory(fuse_req_t request, fuse_ino_t id, std::size_t size, off_t position, fuse_file_info*) {
    DirectoryReply reply(request, size, withAttributes);
    reply.fill(static_cast<NodeId>(id), position);
    reply.send();
}

// An exception must not go through the frames of the library. Each operation replies once, as its last step.
template <auto operation, typename... Arguments>
void guarded(fuse_req_t request, Arguments... arguments) {
    try {
        operation(request, arguments...);
    } catch (const std::bad_alloc&) {
        fuse_reply_err(request, ENOMEM);
    }
}

fuse_lowlevel_ops operations() {
    fuse_lowlevel_ops table{};
    table.init = initialize;
    table.lookup = guarded<lookUp>;
    table.getattr = guarded<getAttributes>;
    table.readlink = guarded<readLink>;
    table.open = open;
    table.opendir = openDirectory;
    table.read = guarded<read>;
    table.readdir = guarded<readDirectory<false>>;
    table.readdirplus = guarded<readDirectory<true>>;
    return table;
}

void reportFromLibrary(fuse_log_level level, const char* format, va_list arguments) {
    if (level > FUSE_LOG_WARNING) return;
    char text[512];
    std::vsnprintf(text, sizeof text, format, arguments);
    std::string line(text);
    while (line.ends_with('\n')) line.pop_back();
    report(line);
}

// For the handler of signals.
std::atomic<fuse_session*> servedSession = nullptr;
pthread_t servingThread;

// The thread that waits in serve() looks at the session only when the signal ends its wait.
void endService(int number) {
    if (auto* const session = servedSession.load()) fuse_session_exit(session);
    if (!pthread_equal(pthread_self(), servingThread)) pthread_kill(servingThread, number);
}

std::string mountOptions(const std::string& source) {
    char* options = nullptr;
    for (const std::string& option : {std::string("ro"), std::string("nosuid"), std::string("nodev"),
                                      std::string("noexec"), std::string("subtype=qvx"), "fsname=" + source})
        if (fuse_opt_add_opt_escaped(&options, option.c_str()) != 0) throw std::bad_alloc();
    std::string text(options);
    std::free(options);
    return text;
}

}  // namespace

Result<std::unique_ptr<FuseMount>> FuseMount::mount(const std::string& folder, const std::string& source,
                                                    MountedEntries entries) {
    std::unique_ptr<FuseMount> made(new FuseMount(entries));
    if (Status opened = made->open(folder, source); !opened) return opened.error();
    return made;
}

Status FuseMount::open(const std::string& folder, const std::string& source) {
    fuse_set_log_func(reportFromLibrary);
    std::string words[] = {"qvx", "-o", mountOptions(source)};
    char* pointers[] = {words[0].data(), words[1].data(), words[2].data()};
    fuse_args arguments = FUSE_ARGS_INIT(3, pointers);
    const auto table = operations();
    session_ = fuse_session_new(&arguments, &table, sizeof table, &entries_);
    fuse_opt_free_args(&arguments);
    if (!session_) return Error{"the file system cannot be made"};
    // Before the mount: a signal that ended the process would leave a dead mount.
    servedSession = session_;
    servingThread = pthread_self();
    watchForInterruption(endService);
    if (fuse_session_mount(session_, folder.c_str()) != 0) return Error{"cannot mount here", 0, folder};
    return {};
}

FuseMount::~FuseMount() {
    if (!session_) return;
    servedSession = nullptr;
    fuse_session_unmount(session_);
    fuse_session_destroy(session_);
}

Status FuseMount::serve() {
    const std::unique_ptr<fuse_loop_config, FreeWith<fuse_loop_cfg_destroy>> config(fuse_loop_cfg_create());
    const int result = fuse_session_loop_mt(session_, config.get());
    if (result < 0) return systemError(-result);
    return {};
}

}  // namespace tarnwick::qvx
