#include "base/passphrase.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "base/handle.h"
#include "base/visible_text.h"

namespace tarnwick {

namespace {

constexpr std::array endingSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
volatile std::sig_atomic_t caughtSignal = 0;

extern "C" void rememberSignal(int signal) { caughtSignal = signal; }

// While an object exists, a signal that would end the program only ends waitForInput(); the destructor raises it again.
// The signals are blocked except during the wait, so that none can arrive between the check of caughtSignal and the
// wait.
class DelayedSignals {
public:
    DelayedSignals() {
        caughtSignal = 0;
        sigset_t ending;
        sigemptyset(&ending);
        for (const int signal : endingSignals) sigaddset(&ending, signal);
        sigprocmask(SIG_BLOCK, &ending, &savedMask_);
        waitMask_ = savedMask_;
        for (const int signal : endingSignals) sigdelset(&waitMask_, signal);
        struct sigaction remember {};
        remember.sa_handler = rememberSignal;
        sigemptyset(&remember.sa_mask);
        for (std::size_t i = 0; i < endingSignals.size(); ++i) {
            sigaction(endingSignals[i], nullptr, &before_[i]);
            if (before_[i].sa_handler != SIG_IGN) sigaction(endingSignals[i], &remember, nullptr);
        }
    }
    ~DelayedSignals() {
        for (std::size_t i = 0; i < endingSignals.size(); ++i) sigaction(endingSignals[i], &before_[i], nullptr);
        if (caughtSignal != 0) raise(caughtSignal);
        sigprocmask(SIG_SETMASK, &savedMask_, nullptr);
    }
    DelayedSignals(const DelayedSignals&) = delete;
    DelayedSignals& operator=(const DelayedSignals&) = delete;

    // False when a signal arrived before input did, and on an error.
    [[nodiscard]] bool waitForInput(int descriptor) const {
        pollfd input{descriptor, POLLIN, 0};
        while (ppoll(&input, 1, nullptr, &waitMask_) < 0 && caughtSignal == 0) {
            if (errno != EINTR) return false;
        }
        return caughtSignal == 0;
    }

private:
    sigset_t savedMask_{};
    sigset_t waitMask_{};
    std::array<struct sigaction, endingSignals.size()> before_{};
};

// While an object exists, the terminal does not show what is typed.
class EchoOff {
public:
    explicit EchoOff(int descriptor) : descriptor_(descriptor) {
        if (tcgetattr(descriptor, &before_) != 0) return;
        auto silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
        silent.c_lflag |= ICANON | ISIG;
        // TCSAFLUSH also discards input that was typed before the question.
        isSilent_ = tcsetattr(descriptor, TCSAFLUSH, &silent) == 0;
    }
    ~EchoOff() {
        if (isSilent_) tcsetattr(descriptor_, TCSANOW, &before_);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

    [[nodiscard]] bool isSilent() const { return isSilent_; }

private:
    int descriptor_;
    termios before_{};
    bool isSilent_ = false;
};

void write(int terminal, const std::string& text) {
    // An error is ignored: if the question cannot be written, the read that follows fails too.
    [[maybe_unused]] const auto written = ::write(terminal, text.data(), text.size());
}

Error readError(int code) { return {std::string("cannot read the passphrase: ") + std::strerror(code), code}; }

Error endOfInput() { return {"end of input instead of a passphrase"}; }

Error tooLong() { return {"the passphrase is too long"}; }

Status readLine(Passphrase& passphrase, int terminal, const DelayedSignals& delayed) {
    while (delayed.waitForInput(terminal)) {
        char byte = 0;
        const auto count = ::read(terminal, &byte, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return readError(errno);
        if (count == 0) return endOfInput();
        if (byte == '\n') return {};
        if (passphrase.remaining() == 0) return tooLong();
        passphrase.append(byte);
        explicit_bzero(&byte, 1);
    }
    return Error{"interrupted"};
}

}  // namespace

Passphrase::Passphrase() {
    mlock(bytes_.data(), bytes_.size());  // fails under a low limit; the bytes are wiped in any case
}

Passphrase::~Passphrase() {
    clear();
    munlock(bytes_.data(), bytes_.size());
}

void Passphrase::append(char byte) { bytes_[size_++] = byte; }

void Passphrase::clear() {
    explicit_bzero(bytes_.data(), bytes_.size());
    size_ = 0;
}

Status askPassphrase(Passphrase& passphrase, const std::string& question) {
    passphrase.clear();
    const FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!terminal) return Error{"no terminal to ask for the passphrase on", errno};
    const DelayedSignals delayed;
    const EchoOff silent(terminal.get());
    if (!silent.isSilent()) return Error{"cannot turn off the echo of the terminal"};
    write(terminal.get(), visibleText(question));
    auto status = readLine(passphrase, terminal.get(), delayed);
    write(terminal.get(), "\n");
    return status;
}

Status readPassphrase(Passphrase& passphrase, int descriptor) {
    passphrase.clear();
    while (passphrase.remaining() > 0) {
        const auto count = ::read(descriptor, passphrase.end(), passphrase.remaining());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return readError(errno);
        if (count == 0 && passphrase.size() == 0) return endOfInput();
        if (count == 0) return {};
        passphrase.grow(static_cast<std::size_t>(count));
    }
    return tooLong();
}

}  // namespace tarnwick
