#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace velto::cli {

// Decides what an interruption means and carries it out on a control thread of its own:
// the service's stop and cancel block until the recorder has acted, and the main thread
// must keep reading events meanwhile (the `finished` event arrives during the stop).
//
// First interruption (or the end of --duration): stop, so the file is completed.
// Second interruption: cancel. Third: abandon (the program exits at once; the file is
// written so that it stays readable after an abrupt end).
//
// The service refuses a stop before the recording is running and anything before its
// start has returned, so requests made earlier wait for markStarted() / markRecording().
//
// Threads: every member may be called from any thread; `stop` and `cancel` run on the
// control thread, `abandon` on the thread that made the third interruption.
class RecordingControl {
public:
    struct Actions {
        std::function<void()> stop;
        std::function<void()> cancel;
        std::function<void()> abandon;
    };

    explicit RecordingControl(Actions actions);
    // Joins the control thread; waits for a stop or cancel that is under way.
    ~RecordingControl();
    RecordingControl(const RecordingControl&) = delete;
    RecordingControl& operator=(const RecordingControl&) = delete;

    void interrupt();
    // A stop or cancel that does not count as an interruption (the duration has passed).
    void requestStop();
    void requestCancel();
    void markStarted();    // the service's start has returned
    void markRecording();  // the first progress event arrived: the service accepts stop

    bool stopRequested() const;
    bool cancelRequested() const;
    int interruptions() const;

private:
    void run();

    const Actions actions_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // All guarded by mutex_.
    int interruptions_ = 0;
    bool stopRequested_ = false;
    bool cancelRequested_ = false;
    bool started_ = false;
    bool recording_ = false;
    bool stopIssued_ = false;
    bool cancelIssued_ = false;
    bool shuttingDown_ = false;
    std::thread thread_;  // last: starts after the fields above exist
};

}  // namespace velto::cli
