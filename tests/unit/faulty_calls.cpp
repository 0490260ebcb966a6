#include "unit/faulty_calls.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

// None of the headers that declare the functions below: their declarations differ from these in what they promise.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
}

namespace tarnwick::test {

namespace {

Fault fault;
std::atomic<bool> armed = false;
std::atomic<unsigned> seen = 0;
std::atomic<int> threads = 0;
thread_local bool inFault = false;

bool fails(std::string_view call) {
    if (!armed || inFault || call != fault.call) return false;
    const unsigned number = seen++;
    if (number < fault.first || number - fault.first >= fault.times) return false;
    inFault = true;
    if (fault.before) fault.before();
    inFault = false;
    errno = fault.error;
    return fault.error != 0;
}

bool failsOrHalves(std::string_view call, std::size_t& size) {
    if (!fails(call)) return false;
    if (fault.error == halved) size = (size + 1) / 2;
    return fault.error != halved;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void arm(Fault wanted) {
    fault = std::move(wanted);
    seen = 0;
    armed = true;
}

unsigned disarm() {
    armed = false;
    return seen;
}

int runningThreads() { return threads; }

}  // namespace tarnwick::test

using namespace tarnwick::test;

#define FAULTY(Result, name, call, parameters, arguments)         \
    extern "C" Result name parameters {                           \
        static auto* const real = next<Result parameters>(#name); \
        return fails(call) ? Result(-1) : real arguments;         \
    }
#define FAULTY_TRANSFER(name, call, parameters, arguments)      \
    extern "C" long name parameters {                           \
        static auto* const real = next<long parameters>(#name); \
        return failsOrHalves(call, size) ? -1 : real arguments; \
    }

FAULTY(int, open, "open", (const char* path, int flags, int mode), (path, flags, mode))
FAULTY(int, open64, "open", (const char* path, int flags, int mode), (path, flags, mode))
FAULTY(int, openat, "open", (int folder, const char* path, int flags, int mode), (folder, path, flags, mode))
FAULTY(int, stat, "stat", (const char* path, void* status), (path, status))
FAULTY(int, stat64, "stat", (const char* path, void* status), (path, status))
FAULTY(int, lstat, "stat", (const char* path, void* status), (path, status))
FAULTY(int, lstat64, "stat", (const char* path, void* status), (path, status))
FAULTY(int, fstat, "stat", (int file, void* status), (file, status))
FAULTY(int, fstat64, "stat", (int file, void* status), (file, status))
FAULTY(int, statx, "stat", (int folder, const char* path, int flags, unsigned mask, void* status),
       (folder, path, flags, mask, status))
FAULTY(int, fchmod, "mode", (int file, unsigned mode), (file, mode))
FAULTY(int, ioctl, "flags", (int file, unsigned long request, void* argument), (file, request, argument))
FAULTY(long, lseek64, "seek", (int file, long offset, int whence), (file, offset, whence))
FAULTY(long, flistxattr, "xattr", (int file, char* list, std::size_t size), (file, list, size))
FAULTY(long, llistxattr, "xattr", (const char* path, char* list, std::size_t size), (path, list, size))
FAULTY(long, fgetxattr, "xattr", (int file, const char* name, void* value, std::size_t size), (file, name, value, size))
FAULTY(long, readlink, "link", (const char* path, char* target, std::size_t size), (path, target, size))
FAULTY_TRANSFER(read, "read", (int file, void* bytes, std::size_t size), (file, bytes, size))
FAULTY_TRANSFER(pread64, "read", (int file, void* bytes, std::size_t size, long at), (file, bytes, size, at))
FAULTY_TRANSFER(write, "write", (int file, const void* bytes, std::size_t size), (file, bytes, size))

extern "C" int close(int file) {
    static auto* const real = next<int(int)>("close");
    const bool failed = fails("close");
    const int result = real(file);
    return failed ? -1 : result;
}

extern "C" void* readdir(void* folder) {
    static auto* const real = next<void*(void*)>("readdir");
    return fails("readdir") ? nullptr : real(folder);
}

extern "C" int pthread_create(unsigned long* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                              void* argument) {
    static auto* const real = next<decltype(pthread_create)>("pthread_create");
    if (fails("thread")) return errno;
    const int result = real(thread, attributes, start, argument);
    threads += result == 0;
    return result;
}

extern "C" int pthread_join(unsigned long thread, void** result) {
    static auto* const real = next<decltype(pthread_join)>("pthread_join");
    --threads;
    return real(thread, result);
}

// A sanitizer has an allocation of its own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* malloc(std::size_t size) { return fails("memory") ? nullptr : __libc_malloc(size); }
extern "C" void* calloc(std::size_t count, std::size_t size) {
    return fails("memory") ? nullptr : __libc_calloc(count, size);
}
extern "C" void* realloc(void* old, std::size_t size) { return fails("memory") ? nullptr : __libc_realloc(old, size); }
#endif
