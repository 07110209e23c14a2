#pragma once

#include <termios.h>

#include <functional>
#include <thread>

namespace velto::cli {

// Reads single key presses from a terminal while recording, as `arecord -i` does: space
// or Enter calls `onToggle`. The terminal is put into non-canonical mode without echo
// (Ctrl-C still interrupts) and given back as it was.
//
// Only where the terminal is ours to change: `fd` is a terminal and this process is in
// its foreground (a background job that changed it would be stopped by the shell).
//
// Threads: construct and destroy on one thread; `onToggle` runs on the reader's own
// thread. restore() may be called from any thread, also just before the process exits.
class TerminalKeys {
public:
    // Whether keys can be read from `fd` (see above).
    static bool usable(int fd);

    TerminalKeys(int fd, std::function<void()> onToggle);
    ~TerminalKeys();
    TerminalKeys(const TerminalKeys&) = delete;
    TerminalKeys& operator=(const TerminalKeys&) = delete;

    void restore() const;

private:
    void read();

    const int fd_;
    std::function<void()> onToggle_;
    termios saved_{};
    int wakeReadFd_ = -1;
    int wakeWriteFd_ = -1;
    std::thread thread_;
};

}  // namespace velto::cli
