#pragma once
// Clang's thread-safety analysis (-Wthread-safety): a member declared
// VELTO_GUARDED_BY(mutex_) may only be touched with that mutex held, and the Clang build
// refuses code that does otherwise. Other compilers see empty macros. The analysis knows
// only annotated types, hence Mutex, MutexLock and MutexUniqueLock in place of
// std::mutex, std::lock_guard and std::unique_lock where a member names its guard.

#include <mutex>

#if defined(__clang__)
#define VELTO_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VELTO_THREAD_ANNOTATION(x)
#endif

#define VELTO_CAPABILITY(name) VELTO_THREAD_ANNOTATION(capability(name))
#define VELTO_SCOPED_CAPABILITY VELTO_THREAD_ANNOTATION(scoped_lockable)
#define VELTO_GUARDED_BY(mutex) VELTO_THREAD_ANNOTATION(guarded_by(mutex))
#define VELTO_REQUIRES(...) VELTO_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VELTO_EXCLUDES(...) VELTO_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define VELTO_ACQUIRE(...) VELTO_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VELTO_RELEASE(...) VELTO_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VELTO_TRY_ACQUIRE(...) VELTO_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))

namespace velto {

// std::mutex, as the analysis sees it. Also a BasicLockable, for std::condition_variable_any.
class VELTO_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    ~Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    Mutex(Mutex&&) = delete;
    Mutex& operator=(Mutex&&) = delete;

    void lock() VELTO_ACQUIRE() { mutex_.lock(); }
    void unlock() VELTO_RELEASE() { mutex_.unlock(); }
    bool try_lock() VELTO_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

private:
    std::mutex mutex_;
};

// std::lock_guard for a Mutex.
class VELTO_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) VELTO_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() VELTO_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    MutexLock(MutexLock&&) = delete;
    MutexLock& operator=(MutexLock&&) = delete;

private:
    Mutex& mutex_;
};

// std::unique_lock for a Mutex: for a lock given up before its scope ends, and for
// std::condition_variable_any, which gives it up and takes it again while it waits. A
// wait belongs in a loop over the condition, written where the analysis sees the lock
// held (a predicate lambda is checked as a function of its own, without it).
class VELTO_SCOPED_CAPABILITY MutexUniqueLock {
public:
    explicit MutexUniqueLock(Mutex& mutex) VELTO_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexUniqueLock() VELTO_RELEASE() {
        if (owns_) mutex_.unlock();
    }
    MutexUniqueLock(const MutexUniqueLock&) = delete;
    MutexUniqueLock& operator=(const MutexUniqueLock&) = delete;
    MutexUniqueLock(MutexUniqueLock&&) = delete;
    MutexUniqueLock& operator=(MutexUniqueLock&&) = delete;

    void lock() VELTO_ACQUIRE() {
        mutex_.lock();
        owns_ = true;
    }
    void unlock() VELTO_RELEASE() {
        owns_ = false;
        mutex_.unlock();
    }

private:
    Mutex& mutex_;
    bool owns_ = true;
};

}  // namespace velto
