#pragma once

#include <cstdint>
#include <functional>

namespace velto {

// Keeps disk space allocated past the end of a file being written, without changing the
// file's size. When the disk fills up, it is renewing the reserve that fails, while the
// file still owns the rest of it: room for the moments a recording takes to stop, and for
// what finishing the file writes (a FLAC encoder's last frame and its stream info, a WAV
// header). Without it the disk runs out in the middle of a write, the FLAC encoder gives
// up, and the file claims no length at all.
//
// A process killed mid-recording leaves the reserve allocated past the file's end (at most
// its size) until the file is next truncated or removed.
//
// Threads: not thread-safe; the owner serialises the calls.
class DiskSpaceReserve {
public:
    // Allocates lengthBytes from offsetBytes on without changing the file's size. Returns 0
    // or an errno value.
    using Allocator = std::function<int(int fileDescriptor, std::int64_t offsetBytes, std::int64_t lengthBytes)>;
    // fallocate(2) with FALLOC_FL_KEEP_SIZE.
    static Allocator keepingFileSize();

    enum class Renewal {
        ample,        // more than half of the reserve is left: nothing asked of the disk
        renewed,      // topped up to its full size again
        diskFull,     // the disk has no more to give; what is still reserved stays usable
        unsupported,  // the file system cannot reserve: the reserve is off from now on
    };

    DiskSpaceReserve(int fileDescriptor, std::int64_t reserveBytes, Allocator allocate);

    // Tops the reserve up to reserveBytes past fileEndBytes once less than half of it is
    // left (so the disk is asked at most once per half reserve written). An unknown end
    // (negative) asks nothing.
    Renewal renew(std::int64_t fileEndBytes);

    // Gives back what is reserved past fileEndBytes (the file is finished); with an
    // unknown end (negative) the reserve stays rather than risk cutting the file.
    void release(std::int64_t fileEndBytes);

private:
    const int fileDescriptor_;
    const std::int64_t reserveBytes_;
    const Allocator allocate_;
    bool active_ = true;
    std::int64_t reservedEndBytes_ = 0;
};

}  // namespace velto
