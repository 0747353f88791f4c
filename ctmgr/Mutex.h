// A mutex, its lock and a condition that clang follows: with -Wthread-safety, what is marked
// ZAN_GUARDED_BY cannot be touched without its lock (clang's documentation, "Thread Safety
// Analysis"). The standard library's own types do not say so much.
#pragma once

#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define ZAN_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define ZAN_THREAD_SAFETY(attribute)
#endif

#define ZAN_CAPABILITY(name) ZAN_THREAD_SAFETY(capability(name))
#define ZAN_SCOPED_CAPABILITY ZAN_THREAD_SAFETY(scoped_lockable)
#define ZAN_GUARDED_BY(guard) ZAN_THREAD_SAFETY(guarded_by(guard))
#define ZAN_REQUIRES(guard) ZAN_THREAD_SAFETY(requires_capability(guard))
#define ZAN_ACQUIRE(...) ZAN_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define ZAN_RELEASE() ZAN_THREAD_SAFETY(release_capability())

namespace ctmgr {

/// Thread: any, like all in this file.
class ZAN_CAPABILITY("mutex") Mutex {
 public:
  void lock() ZAN_ACQUIRE() { mutex_.lock(); }
  void unlock() ZAN_RELEASE() { mutex_.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

/// Holds |mutex| as long as it lives.
class ZAN_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ZAN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() ZAN_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

class Condition {
 public:
  /// Gives |mutex| up, and has it again when somebody has notified, or for no reason at all.
  void wait(Mutex& mutex) ZAN_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace ctmgr
