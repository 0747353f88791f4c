// The calls that the plug-in makes, any of which can be made to fail.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

/// The linker's --wrap leads the calls of our own objects here, in every build alike; a definition
/// of read() in the executable would also catch those of the C library and fight the sanitizers'
/// own. The stream over the table reads through here because fdopen() makes it of two functions.
///
/// Thread: any.
class FaultyCalls {
 public:
  static FaultyCalls& instance();

  /// Counts calls from now on. Call |number|, from 1, fails with |error|, and when it |stays| so do
  /// all later ones of its kind.
  void fail(int number, int error, bool stays);

  /// Stops counting. Returns the kind of the call that failed, empty when there were fewer calls.
  std::string stop();

  /// For the wrappers: sets errno when this call of |kind| is to fail.
  bool fails(const char* kind);

  /// By operator new, not deleted yet.
  [[nodiscard]] static long allocations();

  /// Files that open as the table and as a timer.
  int table = -1;
  int timer = -1;

 private:
  std::mutex mutex_;
  std::atomic<bool> counting_ = false;
  int number_ = 0;  ///< counted down to the call that fails
  int error_ = 0;
  bool stays_ = false;
  std::string kind_;
};
