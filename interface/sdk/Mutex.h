#pragma once

#include <mutex>
#include <shared_mutex>

// Clang checks at compile time that a guarded member is only touched under its lock
// (-Wthread-safety). The standard library's own mutexes carry no annotations, hence these wrappers.
#if defined(__clang__)
#define SDK_ANNOTATE(x) __attribute__((x))
#else
#define SDK_ANNOTATE(x)
#endif

/// The member may only be touched while the lock is held.
#define SDK_GUARDED_BY(lock) SDK_ANNOTATE(guarded_by(lock))
/// The function may only be called while the lock is held.
#define SDK_REQUIRES(...) SDK_ANNOTATE(requires_capability(__VA_ARGS__))
/// The function must not be called while the lock is held.
#define SDK_EXCLUDES(...) SDK_ANNOTATE(locks_excluded(__VA_ARGS__))

namespace SDK {

/// A mutual exclusion lock that the compiler can check.
class SDK_ANNOTATE(capability("mutex")) Mutex {
public:
    void lock() SDK_ANNOTATE(acquire_capability()) { m_mutex.lock(); }
    void unlock() SDK_ANNOTATE(release_capability()) { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

/// The same, for a thread that may meet the lock again further down its own stack.
class SDK_ANNOTATE(capability("mutex")) RecursiveMutex {
public:
    void lock() SDK_ANNOTATE(acquire_capability()) { m_mutex.lock(); }
    void unlock() SDK_ANNOTATE(release_capability()) { m_mutex.unlock(); }

private:
    std::recursive_mutex m_mutex;
};

/// Many readers or one writer.
class SDK_ANNOTATE(capability("shared_mutex")) SharedMutex {
public:
    void lock() SDK_ANNOTATE(acquire_capability()) { m_mutex.lock(); }
    void unlock() SDK_ANNOTATE(release_capability()) { m_mutex.unlock(); }
    void lock_shared() SDK_ANNOTATE(acquire_shared_capability()) { m_mutex.lock_shared(); }
    void unlock_shared() SDK_ANNOTATE(release_shared_capability()) { m_mutex.unlock_shared(); }

private:
    std::shared_mutex m_mutex;
};

/// Holds a lock alone from construction to destruction.
template <typename MutexT>
class SDK_ANNOTATE(scoped_lockable) LockGuard {
public:
    explicit LockGuard(MutexT& mutex) SDK_ANNOTATE(acquire_capability(mutex)) : m_mutex(mutex) {
        m_mutex.lock();
    }
    ~LockGuard() SDK_ANNOTATE(release_capability()) { m_mutex.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    MutexT& m_mutex;
};

/// Holds a SharedMutex together with other readers from construction to destruction.
class SDK_ANNOTATE(scoped_lockable) SharedLockGuard {
public:
    explicit SharedLockGuard(SharedMutex& mutex) SDK_ANNOTATE(acquire_shared_capability(mutex))
        : m_mutex(mutex) {
        m_mutex.lock_shared();
    }
    ~SharedLockGuard() SDK_ANNOTATE(release_generic_capability()) { m_mutex.unlock_shared(); }
    SharedLockGuard(const SharedLockGuard&) = delete;
    SharedLockGuard& operator=(const SharedLockGuard&) = delete;

private:
    SharedMutex& m_mutex;
};

}  // namespace SDK
