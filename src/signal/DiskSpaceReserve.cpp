#include "signal/DiskSpaceReserve.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>

#include "logging/LoggerCompat.hpp"

namespace velto {
namespace {

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "DiskSpaceReserve"};
    return instance;
}

bool meansDiskFull(int error) { return error == ENOSPC || error == EDQUOT || error == EFBIG; }

}  // namespace

DiskSpaceReserve::Allocator DiskSpaceReserve::keepingFileSize() {
    return [](int fileDescriptor, std::int64_t offsetBytes, std::int64_t lengthBytes) {
        int result = 0;
        do {
            result = ::fallocate(fileDescriptor, FALLOC_FL_KEEP_SIZE, offsetBytes, lengthBytes);
        } while (result != 0 && errno == EINTR);
        return result == 0 ? 0 : errno;
    };
}

DiskSpaceReserve::DiskSpaceReserve(int fileDescriptor, std::int64_t reserveBytes, Allocator allocate)
    : fileDescriptor_(fileDescriptor), reserveBytes_(reserveBytes), allocate_(std::move(allocate)) {}

DiskSpaceReserve::Renewal DiskSpaceReserve::renew(std::int64_t fileEndBytes) {
    if (!active_) return Renewal::unsupported;
    if (fileEndBytes < 0) return Renewal::ample;
    if (reservedEndBytes_ - fileEndBytes > reserveBytes_ / 2) return Renewal::ample;
    const int error = allocate_(fileDescriptor_, fileEndBytes, reserveBytes_);
    if (error == 0) {
        reservedEndBytes_ = fileEndBytes + reserveBytes_;
        return Renewal::renewed;
    }
    if (meansDiskFull(error)) return Renewal::diskFull;
    // Some file systems cannot reserve (no fallocate, or not without growing the file):
    // the file is written as it would be without a reserve.
    logger().debug("Disk space cannot be reserved for this file: " + std::generic_category().message(error));
    active_ = false;
    return Renewal::unsupported;
}

void DiskSpaceReserve::release(std::int64_t fileEndBytes) {
    if (reservedEndBytes_ == 0 || fileEndBytes < 0) return;
    reservedEndBytes_ = 0;
    // Truncating to the current size frees the blocks allocated past it (ext4 and tmpfs
    // do so) and changes nothing else.
    if (::ftruncate(fileDescriptor_, fileEndBytes) != 0) {
        logger().error("Failed to give back the disk space reserved past the end of a file: " +
                       std::generic_category().message(errno));
    }
}

}  // namespace velto
