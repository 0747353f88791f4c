// Lines from standard input.
#include "demo/Prompt.h"

#include <histedit.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "lab/Error.h"

namespace demo {
namespace {

constexpr char kPrompt[] = "try> ";
constexpr int kHistoryLines = 200;

}  // namespace

Prompt::Prompt(Wait wait)
    : wait_(std::move(wait)),
      terminal_(::isatty(STDIN_FILENO) == 1),
      history_(history_init(), history_end),
      editor_(el_init("zantry", stdin, stdout, stderr), el_end) {
  if (!history_ || !editor_) throw lab::Error("libedit cannot be used");
  HistEvent event{};
  ::history(history_.get(), &event, H_SETSIZE, kHistoryLines);
  el_set(editor_.get(), EL_EDITOR, "emacs");
  el_set(editor_.get(), EL_HIST, ::history, history_.get());
  el_set(
      editor_.get(), EL_PROMPT, +[](EditLine*) -> char* { return const_cast<char*>(kPrompt); });
  el_set(editor_.get(), EL_CLIENTDATA, this);
  el_set(editor_.get(), EL_GETCFN, next);
}

std::optional<std::string> Prompt::line() {
  int length = 0;
  editing_ = terminal_;
  const char* const text = el_gets(editor_.get(), &length);
  editing_ = false;
  if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
  if (text == nullptr || length <= 0) return std::nullopt;

  std::string line(text, static_cast<std::size_t>(length));
  line.erase(line.find_last_not_of("\r\n") + 1);
  HistEvent event{};
  if (!line.empty()) ::history(history_.get(), &event, H_ENTER, line.c_str());
  // Who reads a transcript wants to see what was asked.
  if (!terminal_) std::printf("%s%s\n", kPrompt, line.c_str());
  return line;
}

void Prompt::aside(const std::function<void()>& print) {
  if (editing_) std::fputs("\r\033[K", stdout);
  print();
  if (editing_) el_set(editor_.get(), EL_REFRESH);
}

// libedit is C: nothing may be thrown through it.
int Prompt::next(editline* editor, wchar_t* character) {
  void* data = nullptr;
  el_get(editor, EL_CLIENTDATA, &data);
  auto* const self = static_cast<Prompt*>(data);
  try {
    if (!self->wait_()) return 0;
  } catch (...) {
    self->thrown_ = std::current_exception();
    return 0;
  }
  unsigned char byte = 0;
  if (::read(STDIN_FILENO, &byte, 1) != 1) return 0;
  *character = byte;
  return 1;
}

}  // namespace demo
