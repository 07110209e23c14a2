#pragma once

#include <mutex>
#include <ostream>
#include <string>
#include <string_view>

namespace velto::cli {

// The program's two output channels. Standard output carries results (the file's path,
// JSON lines); standard error carries messages and, on a terminal, the live meter line,
// which is wiped before anything else is written so no line ends up glued to it.
//
// Threads: every member may be called from any thread (the event reader, the signal
// watcher and the library's log sink all write here); each call writes whole lines.
class Console {
public:
    Console(std::ostream& out, std::ostream& err, bool meterEnabled);

    void printResult(std::string_view line);   // standard output
    void printMessage(std::string_view line);  // standard error
    // Replaces the live line; ignored when the meter is off.
    void showMeter(std::string_view line);
    void clearMeter();
    bool meterEnabled() const { return meterEnabled_; }

private:
    void clearMeterLocked();

    std::mutex mutex_;
    std::ostream& out_;            // guarded by mutex_
    std::ostream& err_;            // guarded by mutex_
    const bool meterEnabled_;
    bool meterShown_ = false;      // guarded by mutex_
};

}  // namespace velto::cli
