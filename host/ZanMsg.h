// The framework's log.
#pragma once

/// The log object. Its vtable order is part of the binary contract: logging is the third virtual
/// operation, and there is no virtual destructor, which would take up places of its own.
class ZanMsg {
 public:
  /// The process's log object, or null while there is none. Read it at every use: the framework
  /// may exchange it.
  static ZanMsg* zan_log_class_ptr;

  /// Drops lines below |level| from now on.
  virtual void setThreshold(int level) = 0;

  /// Whether a line of |level| would be written at all.
  [[nodiscard]] virtual bool enabled(int level) const = 0;

  /// Writes one line. |level| runs from 0 (routine) to 4 (error), |module| says whose line it is,
  /// |format| and what follows are those of printf(3). Any thread; never blocks for long, and never
  /// on the event thread.
  [[gnu::format(printf, 4, 5)]] virtual void log(int level, int module, const char* format,
                                                 ...) = 0;

 protected:
  ~ZanMsg() = default;
};
