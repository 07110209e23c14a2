#include "TerminalKeys.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace velto::cli {

bool TerminalKeys::usable(int fd) { return ::isatty(fd) == 1 && ::tcgetpgrp(fd) == ::getpgrp(); }

TerminalKeys::TerminalKeys(int fd, std::function<void()> onToggle) : fd_(fd), onToggle_(std::move(onToggle)) {
    if (::tcgetattr(fd_, &saved_) != 0) return;
    int wake[2];
    if (::pipe(wake) != 0) return;
    wakeReadFd_ = wake[0];
    wakeWriteFd_ = wake[1];
    termios keys = saved_;
    keys.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    keys.c_cc[VMIN] = 1;
    keys.c_cc[VTIME] = 0;
    ::tcsetattr(fd_, TCSANOW, &keys);
    thread_ = std::thread([this] { read(); });
}

TerminalKeys::~TerminalKeys() {
    if (thread_.joinable()) {
        const char stop = 0;
        while (::write(wakeWriteFd_, &stop, 1) < 0 && errno == EINTR) {
        }
        thread_.join();
        restore();
    }
    if (wakeReadFd_ >= 0) ::close(wakeReadFd_);
    if (wakeWriteFd_ >= 0) ::close(wakeWriteFd_);
}

void TerminalKeys::restore() const {
    if (wakeReadFd_ >= 0) ::tcsetattr(fd_, TCSANOW, &saved_);
}

void TerminalKeys::read() {
    pollfd watched[2] = {{fd_, POLLIN, 0}, {wakeReadFd_, POLLIN, 0}};
    while (true) {
        if (::poll(watched, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (watched[1].revents != 0) return;
        if ((watched[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 && (watched[0].revents & POLLIN) == 0) return;
        char key = 0;
        const ssize_t got = ::read(fd_, &key, 1);
        if (got == 0) return;  // the terminal is gone
        if (got < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return;
        }
        if (key == ' ' || key == '\n' || key == '\r') onToggle_();
    }
}

}  // namespace velto::cli
