// Lines from standard input.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

struct editline;
struct history;

namespace demo {

/// Lines from standard input, edited and with a history where that is a terminal. A narrow front to
/// libedit. Thread: one.
class Prompt {
 public:
  /// Returns when something has been typed, or false to end the input.
  using Wait = std::function<bool()>;

  explicit Prompt(Wait wait);

  /// The next line without its end; nothing at the end of the input. What |wait| throws comes out
  /// of here.
  [[nodiscard]] std::optional<std::string> line();

  /// Calls |print|, which prints whole lines, above the line that is being edited.
  void aside(const std::function<void()>& print);

 private:
  static int next(editline* editor, wchar_t* character);

  Wait wait_;
  bool terminal_;
  bool editing_ = false;
  std::exception_ptr thrown_;
  std::unique_ptr<history, void (*)(history*)> history_;
  std::unique_ptr<editline, void (*)(editline*)> editor_;
};

}  // namespace demo
