// A place for one thing that a thread leaves for the worker it starts next.
#pragma once

#include <condition_variable>
#include <mutex>

/// Guards the place; what lies in it are members of whoever owns the HandOver. A second content
/// waits until the first has been taken, so that none is lost or taken twice.
///
/// Thread: any.
class HandOver {
 public:
  /// Runs |fill| once the previous content has been taken. The caller must then start the worker
  /// that takes this one: until it has, the next put() waits.
  template <typename Fill>
  void put(Fill fill) {
    std::unique_lock<std::mutex> lock(mutex_);
    taken_.wait(lock, [this] { return !waiting_; });
    fill();
    waiting_ = true;
  }

  /// Runs |copy| and frees the place.
  template <typename Copy>
  void take(Copy copy) {
    const std::lock_guard<std::mutex> lock(mutex_);
    copy();
    waiting_ = false;
    taken_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable taken_;
  bool waiting_ = false;
};
