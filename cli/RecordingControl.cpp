#include "RecordingControl.hpp"

namespace velto::cli {

RecordingControl::RecordingControl(Actions actions) : actions_(std::move(actions)) {
    thread_ = std::thread([this] { run(); });
}

RecordingControl::~RecordingControl() {
    {
        std::lock_guard lock(mutex_);
        shuttingDown_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void RecordingControl::interrupt() {
    bool abandon = false;
    {
        std::lock_guard lock(mutex_);
        ++interruptions_;
        if (interruptions_ == 1) {
            stopRequested_ = true;
        } else if (interruptions_ == 2) {
            cancelRequested_ = true;
        } else {
            abandon = true;
        }
    }
    changed_.notify_all();
    if (abandon && actions_.abandon) actions_.abandon();
}

void RecordingControl::requestStop() {
    {
        std::lock_guard lock(mutex_);
        stopRequested_ = true;
    }
    changed_.notify_all();
}

void RecordingControl::requestCancel() {
    {
        std::lock_guard lock(mutex_);
        cancelRequested_ = true;
    }
    changed_.notify_all();
}

void RecordingControl::markStarted() {
    {
        std::lock_guard lock(mutex_);
        started_ = true;
    }
    changed_.notify_all();
}

void RecordingControl::markRecording() {
    {
        std::lock_guard lock(mutex_);
        started_ = true;
        recording_ = true;
    }
    changed_.notify_all();
}

bool RecordingControl::stopRequested() const {
    std::lock_guard lock(mutex_);
    return stopRequested_;
}

bool RecordingControl::cancelRequested() const {
    std::lock_guard lock(mutex_);
    return cancelRequested_;
}

int RecordingControl::interruptions() const {
    std::lock_guard lock(mutex_);
    return interruptions_;
}

void RecordingControl::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        // A cancel overtakes a stop that has not been issued yet: nothing is gained by
        // completing a file the user has just asked to abandon.
        bool cancelDue = cancelRequested_ && !cancelIssued_ && started_;
        bool stopDue = stopRequested_ && !stopIssued_ && !cancelRequested_ && recording_;
        if (cancelDue) {
            cancelIssued_ = true;
            lock.unlock();
            if (actions_.cancel) actions_.cancel();
            lock.lock();
            continue;
        }
        if (stopDue) {
            stopIssued_ = true;
            lock.unlock();
            if (actions_.stop) actions_.stop();
            lock.lock();
            continue;
        }
        if (shuttingDown_) return;
        changed_.wait(lock);
    }
}

}  // namespace velto::cli
