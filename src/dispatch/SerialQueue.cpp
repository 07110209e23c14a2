#include "dispatch/SerialQueue.hpp"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "logging/LoggerCompat.hpp"

namespace velto {

namespace {
LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "SerialQueue"};
    return l;
}

// Nice values: raising priority needs privileges, lowering never does. A queue
// that cannot get its priority still runs, at the default one.
int niceValue(QualityOfService qos) {
    switch (qos) {
        case QualityOfService::userInteractive: return -10;
        case QualityOfService::userInitiated: return -5;
        case QualityOfService::defaultQoS: return 0;
        case QualityOfService::utility: return 5;
        case QualityOfService::background: return 10;
    }
    return 0;
}

thread_local const SerialQueue::Core* tCurrentCore = nullptr;
}  // namespace

const char* caseName(QualityOfService qos) {
    switch (qos) {
        case QualityOfService::userInteractive: return "userInteractive";
        case QualityOfService::userInitiated: return "userInitiated";
        case QualityOfService::defaultQoS: return "default";
        case QualityOfService::utility: return "utility";
        case QualityOfService::background: return "background";
    }
    return "default";
}

struct SerialQueue::Core {
    std::string label;
    QualityOfService qos;
    std::shared_ptr<Clock> clock;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> ready;
    std::multimap<double, std::function<void()>> delayed;
    bool stopping = false;
    std::thread worker;

    void run() {
        tCurrentCore = this;
        applyPriority();
        std::unique_lock lock(mutex);
        for (;;) {
            promoteDueWork();
            if (!ready.empty()) {
                auto work = std::move(ready.front());
                ready.pop_front();
                lock.unlock();
                work();
                work = nullptr;  // release captures outside the lock
                lock.lock();
                continue;
            }
            if (stopping) break;
            if (delayed.empty()) {
                wake.wait(lock);
            } else {
                wake.wait_for(lock, clock->realTimeUntil(delayed.begin()->first));
            }
        }
        // Dropped delayed work is released outside the lock, on this thread.
        auto dropped = std::move(delayed);
        lock.unlock();
        dropped.clear();
    }

    void promoteDueWork() {
        if (delayed.empty()) return;
        double now = clock->nowSeconds();
        while (!delayed.empty() && delayed.begin()->first <= now) {
            ready.push_back(std::move(delayed.begin()->second));
            delayed.erase(delayed.begin());
        }
    }

    void applyPriority() {
        pid_t tid = pid_t(syscall(SYS_gettid));
        if (setpriority(PRIO_PROCESS, id_t(tid), niceValue(qos)) != 0 && qos != QualityOfService::defaultQoS) {
            logger().debug("Queue " + label + " runs at default priority: " + caseName(qos) + " not permitted");
        }
        // Thread names are limited to 15 characters: keep the end of the label, its most specific part.
        std::string name = label.size() > 15 ? label.substr(label.size() - 15) : label;
        pthread_setname_np(pthread_self(), name.c_str());
    }
};

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label, QualityOfService qos,
                                                 std::shared_ptr<Clock> clock) {
    auto core = std::make_shared<Core>();
    core->label = std::move(label);
    core->qos = qos;
    core->clock = clock ? std::move(clock) : Clock::system();
    // The worker keeps the core alive, so a queue released by its own work can
    // let its thread finish on its own.
    core->worker = std::thread([core] { core->run(); });
    return std::shared_ptr<SerialQueue>(new SerialQueue(core));
}

SerialQueue::SerialQueue(std::shared_ptr<Core> core) : core_(std::move(core)) {}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(core_->mutex);
        core_->stopping = true;
    }
    core_->wake.notify_all();
    if (std::this_thread::get_id() == core_->worker.get_id()) {
        core_->worker.detach();
    } else if (core_->worker.joinable()) {
        core_->worker.join();
    }
}

void SerialQueue::async(std::function<void()> work) {
    {
        std::lock_guard lock(core_->mutex);
        core_->ready.push_back(std::move(work));
    }
    core_->wake.notify_one();
}

void SerialQueue::sync(const std::function<void()>& work) {
    if (isCurrent()) {
        work();
        return;
    }
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    std::exception_ptr failure;
    async([&] {
        try {
            work();
        } catch (...) {
            failure = std::current_exception();
        }
        std::lock_guard lock(doneMutex);
        done = true;
        doneSignal.notify_one();
    });
    std::unique_lock lock(doneMutex);
    doneSignal.wait(lock, [&] { return done; });
    if (failure) std::rethrow_exception(failure);
}

void SerialQueue::asyncAfter(double deadlineSeconds, std::function<void()> work) {
    {
        std::lock_guard lock(core_->mutex);
        core_->delayed.emplace(deadlineSeconds, std::move(work));
    }
    core_->wake.notify_one();
}

bool SerialQueue::isCurrent() const { return tCurrentCore == core_.get(); }
const std::string& SerialQueue::label() const { return core_->label; }
QualityOfService SerialQueue::qualityOfService() const { return core_->qos; }
const std::shared_ptr<Clock>& SerialQueue::clock() const { return core_->clock; }

}  // namespace velto
