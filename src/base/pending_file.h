// A new file that gets its name when it is complete.
#pragma once

#include <string>
#include <string_view>

#include "base/error.h"
#include "base/handle.h"

namespace tarnwick {

// Until it is placed, the file has no name, so nothing remains of it if the process ends. On a file system without
// unnamed files (O_TMPFILE) it has a hidden name: a prefix and 16 hexadecimal digits. Such a file is locked
// (flock) while it is in use. The destructor removes it; a process that is killed leaves it.
class PendingFile {
public:
    // An empty file with the mode 0600 in the open directory `folder`, which must stay open.
    static Result<PendingFile> create(int folder, std::string_view hiddenPrefix);
    PendingFile(PendingFile&& other) noexcept = default;
    PendingFile& operator=(PendingFile&&) = delete;
    ~PendingFile();

    [[nodiscard]] int descriptor() const { return file_.get(); }  // for writing
    [[nodiscard]] bool isHidden() const { return !hiddenName_.empty(); }

    // Each gives the file its name, once. The caller syncs the file before, and the folder afterwards. place() fails
    // with the code EEXIST if the name is in use. replace() replaces everything but a directory at once: the name
    // always leads to the old file or to the new one.
    Status place(const std::string& name);
    Status replace(const std::string& name);

private:
    PendingFile(int folder, std::string_view hiddenPrefix) : folder_(folder), hiddenPrefix_(hiddenPrefix) {}
    void createUnnamed();
    Status createHidden();
    [[nodiscard]] std::string newHiddenName() const;
    [[nodiscard]] bool link(const std::string& name) const;
    bool renameToFreeName(const std::string& name);

    int folder_;
    std::string hiddenPrefix_;
    std::string hiddenName_;  // empty: none
    FileDescriptor file_;
};

}  // namespace tarnwick
