#include "SignalWatcher.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace velto::cli {

namespace {

// Written by the constructor before the handlers are installed, cleared after they are
// removed; the handler reads it as an async-signal-safe atomic.
std::atomic<int> gSignalPipeWriteFd{-1};

// Sent through the pipe by the destructor to end the watcher thread; no signal has number 0.
constexpr unsigned char kStopByte = 0;

extern "C" void forwardSignalToPipe(int signalNumber) {
    int savedErrno = errno;
    int fd = gSignalPipeWriteFd.load();
    if (fd >= 0) {
        auto byte = static_cast<unsigned char>(signalNumber);
        // A full pipe means dozens of unread signals; dropping one more changes nothing.
        [[maybe_unused]] auto written = ::write(fd, &byte, 1);
    }
    errno = savedErrno;
}

}  // namespace

SignalWatcher::SignalWatcher(std::function<void(int signalNumber)> onSignal, std::initializer_list<int> signalNumbers)
    : onSignal_(std::move(onSignal)), signalNumbers_(signalNumbers) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot create the signal pipe: " + std::generic_category().message(errno));
    }
    pipeReadFd_ = fds[0];
    pipeWriteFd_ = fds[1];
    // The handler must never block, whatever the reader is doing.
    ::fcntl(pipeWriteFd_, F_SETFL, ::fcntl(pipeWriteFd_, F_GETFL) | O_NONBLOCK);
    gSignalPipeWriteFd.store(pipeWriteFd_);

    thread_ = std::thread([this] { watch(); });

    struct sigaction action {};
    action.sa_handler = forwardSignalToPipe;
    sigemptyset(&action.sa_mask);
    // Restart interrupted system calls: the library's threads should not see EINTR
    // because the user pressed Ctrl-C.
    action.sa_flags = SA_RESTART;
    previousActions_.resize(signalNumbers_.size());
    for (std::size_t i = 0; i < signalNumbers_.size(); ++i) {
        ::sigaction(signalNumbers_[i], &action, &previousActions_[i]);
    }
}

SignalWatcher::~SignalWatcher() {
    for (std::size_t i = 0; i < signalNumbers_.size(); ++i) {
        ::sigaction(signalNumbers_[i], &previousActions_[i], nullptr);
    }
    gSignalPipeWriteFd.store(-1);
    // No handler writes any more, so the stop byte may wait for room in the pipe.
    ::fcntl(pipeWriteFd_, F_SETFL, ::fcntl(pipeWriteFd_, F_GETFL) & ~O_NONBLOCK);
    unsigned char stop = kStopByte;
    while (::write(pipeWriteFd_, &stop, 1) < 0 && errno == EINTR) {
    }
    if (thread_.joinable()) thread_.join();
    ::close(pipeReadFd_);
    ::close(pipeWriteFd_);
}

void SignalWatcher::watch() {
    while (true) {
        unsigned char byte = 0;
        ssize_t count = ::read(pipeReadFd_, &byte, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0 || byte == kStopByte) return;
        if (onSignal_) onSignal_(byte);
    }
}

}  // namespace velto::cli
