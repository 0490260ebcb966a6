#include "unit/faulty_calls.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>

using namespace tarnwick::test;

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

bool fails(std::string_view call, std::size_t& size) {
    if (!fails(call)) return false;
    if (fault.error == halved) size = (size + 1) / 2;
    return fault.error != halved;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
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

int tarnwick::test::runningThreads() { return threads; }

// Declared here with plain types, and nowhere else: the library's own declarations promise more than these keep.
#define FAULTY(Result, name, parameters, arguments, ...)          \
    extern "C" Result name parameters {                           \
        static auto* const real = next<Result parameters>(#name); \
        return fails(__VA_ARGS__) ? Result(-1) : real arguments;  \
    }

FAULTY(int, open, (const char* path, int flags, int mode), (path, flags, mode), "open")
FAULTY(int, open64, (const char* path, int flags, int mode), (path, flags, mode), "open")
FAULTY(int, openat, (int folder, const char* path, int flags, int mode), (folder, path, flags, mode), "open")
FAULTY(int, stat64, (const char* path, void* status), (path, status), "stat")
FAULTY(int, lstat64, (const char* path, void* status), (path, status), "stat")
FAULTY(int, fstat64, (int file, void* status), (file, status), "stat")
FAULTY(int, statx, (int folder, const char* path, int flags, unsigned mask, void* status),
       (folder, path, flags, mask, status), "stat")
FAULTY(int, fchmod, (int file, unsigned mode), (file, mode), "mode")
FAULTY(int, ioctl, (int file, unsigned long request, void* argument), (file, request, argument), "flags")
FAULTY(long, lseek64, (int file, long offset, int whence), (file, offset, whence), "seek")
FAULTY(long, flistxattr, (int file, char* list, std::size_t size), (file, list, size), "xattr")
FAULTY(long, llistxattr, (const char* path, char* list, std::size_t size), (path, list, size), "xattr")
FAULTY(long, fgetxattr, (int file, const char* name, void* value, std::size_t size), (file, name, value, size), "xattr")
FAULTY(long, readlink, (const char* path, char* target, std::size_t size), (path, target, size), "link")
FAULTY(long, read, (int file, void* bytes, std::size_t size), (file, bytes, size), "read", size)
FAULTY(long, pread64, (int file, void* bytes, std::size_t size, long at), (file, bytes, size, at), "read", size)
FAULTY(long, write, (int file, const void* bytes, std::size_t size), (file, bytes, size), "write", size)

extern "C" int close(int file) {
    static auto* const real = next<int(int)>("close");
    const bool failed = fails("close");
    return real(file) == 0 && !failed ? 0 : -1;
}

extern "C" void* readdir64(void* folder) {
    static auto* const real = next<void*(void*)>("readdir64");
    return fails("readdir") ? nullptr : real(folder);
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* with) {
    static auto* const real = next<decltype(pthread_create)>("pthread_create");
    const int result = fails("thread") ? errno : real(thread, attributes, start, with);
    threads += result == 0;
    return result;
}

extern "C" int pthread_join(pthread_t thread, void** result) {
    static auto* const real = next<decltype(pthread_join)>("pthread_join");
    --threads;
    return real(thread, result);
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
