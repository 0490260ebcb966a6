#include "unit/faulty_calls.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>

using namespace tarnwick::test;

namespace {

Fault fault;
std::atomic<bool> armed = false;
std::atomic<unsigned> seen = 0;

bool fails(std::string_view call) {
    if (!armed || call != fault.call) return false;
    const unsigned number = seen++;
    if (number < fault.first || number - fault.first >= fault.times) return false;
    if (fault.before) fault.before();
    errno = fault.error;
    return fault.error != 0;
}

bool fails(std::string_view call, std::size_t& size) {
    if (!fails(call)) return false;
    if (fault.error == halved) size = (size + 1) / 2;
    return fault.error != halved;
}

}  // namespace

void tarnwick::test::arm(Fault wanted) {
    fault = std::move(wanted);
    seen = 0;
    armed = true;
}

unsigned tarnwick::test::disarm() {
    armed = false;
    return seen;
}

// Declared here with plain types, and nowhere else: the library's own declarations promise more than these keep.
#define FAULTY(Result, name, parameters, arguments, failure, ...)                                  \
    extern "C" Result name parameters {                                                            \
        static auto* const real = reinterpret_cast<Result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
        return fails(__VA_ARGS__) ? failure : real arguments;                                      \
    }

// clang-format off
FAULTY(int, open64, (const char* path, int flags, int mode), (path, flags, mode), -1, "open")
FAULTY(int, openat64, (int folder, const char* path, int flags, int mode), (folder, path, flags, mode), -1, "open")
FAULTY(int, fstat64, (int file, void* status), (file, status), -1, "stat")
FAULTY(int, fstatat64, (int at, const char* path, void* status, int flags), (at, path, status, flags), -1, "stat")
FAULTY(int, statx, (int at, const char* path, int flags, int mask, void* status), (at, path, flags, mask, status), -1,
       "stat")
FAULTY(int, fchmod, (int file, int mode), (file, mode), -1, "mode")
FAULTY(int, fsync, (int file), (file), -1, "sync")
FAULTY(int, linkat, (int at, const char* path, int folder, const char* name, int flags), (at, path, folder, name, flags),
       -1, "name")
FAULTY(int, renameat, (int at, const char* path, int folder, const char* name), (at, path, folder, name), -1, "name")
FAULTY(int, ioctl, (int file, unsigned long request, void* argument), (file, request, argument), -1, "flags")
FAULTY(long, lseek64, (int file, long offset, int whence), (file, offset, whence), -1, "seek")
FAULTY(long, flistxattr, (int file, char* list, std::size_t size), (file, list, size), -1, "xattr")
FAULTY(long, llistxattr, (const char* path, char* list, std::size_t size), (path, list, size), -1, "xattr")
FAULTY(long, fgetxattr, (int file, const char* name, void* value, std::size_t size), (file, name, value, size), -1,
       "xattr")
FAULTY(long, readlinkat, (int at, const char* path, char* target, std::size_t size), (at, path, target, size), -1, "link")
FAULTY(long, pread64, (int file, void* bytes, std::size_t size, long at), (file, bytes, size, at), -1, "read", size)
FAULTY(long, write, (int file, const void* bytes, std::size_t size), (file, bytes, size), -1, "write", size)
FAULTY(int, close, (int file), (file), (real(file), -1), "close")
FAULTY(void*, readdir64, (void* folder), (folder), nullptr, "readdir")
FAULTY(int, pthread_create, (pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* with),
       (thread, attributes, start, with), errno, "thread")
// clang-format on

// Nothing is in memory yet: everything is read by the calls above, which fail.
extern "C" long preadv64v2(int, const void*, int, long, int) {
    errno = EAGAIN;
    return -1;
}

// A sanitizer has an allocation of its own.
#ifndef __SANITIZE_ADDRESS__
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
void* malloc(std::size_t size) { return fails("memory") ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) { return fails("memory") ? nullptr : __libc_calloc(count, size); }
void* realloc(void* old, std::size_t size) { return fails("memory") ? nullptr : __libc_realloc(old, size); }
}
#endif
