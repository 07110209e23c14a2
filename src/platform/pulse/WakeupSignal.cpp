#include "platform/pulse/WakeupSignal.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace velto::pulse {

WakeupSignal::WakeupSignal() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

WakeupSignal::~WakeupSignal() { ::close(fd_); }

void WakeupSignal::raise() noexcept {
    const std::uint64_t one = 1;
    // Fails only when the counter would overflow, and then it is raised anyway.
    (void)!::write(fd_, &one, sizeof one);
}

bool WakeupSignal::waitFor(std::chrono::microseconds timeout) noexcept {
    pollfd descriptor{fd_, POLLIN, 0};
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
    const timespec limit{static_cast<time_t>(seconds.count()),
                         static_cast<long>(std::chrono::nanoseconds(timeout - seconds).count())};
    if (ppoll(&descriptor, 1, &limit, nullptr) <= 0) return false;
    std::uint64_t count = 0;
    return ::read(fd_, &count, sizeof count) == sizeof count;
}

}  // namespace velto::pulse
