// A file that must not exist yet.
#pragma once

#include <sys/types.h>

#include <string>

#include "base/error.h"
#include "base/handle.h"
#include "qvx/bytes.h"

namespace tarnwick::qvx {

// The destructor removes the file unless keep() was called.
class NewFile {
public:
    NewFile(std::string path, mode_t mode);
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile();

    [[nodiscard]] const Status& made() const { return made_; }  // the other functions may be called only if it is
    Status append(Bytes bytes);
    Status sync();
    void keep() { kept_ = true; }

private:
    std::string path_;
    FileDescriptor descriptor_;
    Status made_;
    bool kept_ = false;
};

}  // namespace tarnwick::qvx
