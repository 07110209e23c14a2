#pragma once

#include <csignal>
#include <functional>
#include <initializer_list>
#include <thread>
#include <vector>

namespace velto::cli {

// Turns termination signals into calls on an ordinary thread. The handler itself only
// writes the signal's number into a pipe (the one thing that is safe inside a signal
// handler); the watcher thread reads the pipe and calls `onSignal`, where locks, logging
// and calls into the library are allowed.
//
// One watcher per process at a time. Threads: construct and destroy on one thread;
// `onSignal` runs on the watcher's own thread. Destruction restores the previous
// handlers and joins the thread, so `onSignal` is not called once it returns.
class SignalWatcher {
public:
    explicit SignalWatcher(std::function<void(int signalNumber)> onSignal,
                           std::initializer_list<int> signalNumbers = {SIGINT, SIGTERM});
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

private:
    void watch();

    std::function<void(int)> onSignal_;
    std::vector<int> signalNumbers_;
    std::vector<struct sigaction> previousActions_;
    int pipeReadFd_ = -1;
    int pipeWriteFd_ = -1;
    std::thread thread_;
};

}  // namespace velto::cli
