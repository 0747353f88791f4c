// Declared options, and what CLI11 makes of them.
#include "base/CommandLine.h"

#include <CLI/CLI.hpp>

namespace base {

struct CommandLine::Side {
  CLI::App app;
  CLI::Option* last = nullptr;
};

CommandLine::CommandLine(const std::string& description, const std::string& footer)
    : side_(std::make_unique<Side>()) {
  side_->app.description(description);
  side_->app.footer(footer);
}

CommandLine::~CommandLine() = default;

CommandLine& CommandLine::text(const std::string& name, std::string& value,
                               const std::string& help) {
  side_->last = side_->app.add_option(name, value, help);
  return *this;
}

CommandLine& CommandLine::texts(const std::string& name, std::vector<std::string>& values,
                                const std::string& help) {
  const bool byPlace = !name.starts_with('-');
  side_->last = side_->app.add_option(name, values, help)->allow_extra_args(byPlace);
  return *this;
}

CommandLine& CommandLine::choice(const std::string& name, std::string& value,
                                 const std::vector<std::string>& accepted,
                                 const std::string& help) {
  text(name, value, help);
  side_->last->check(CLI::IsMember(accepted));
  return *this;
}

CommandLine& CommandLine::number(const std::string& name, int& value, int least, int most,
                                 const std::string& help) {
  side_->last = side_->app.add_option(name, value, help)
                    ->check(CLI::Range(least, most))
                    ->capture_default_str();
  return *this;
}

CommandLine& CommandLine::number(const std::string& name, std::uint32_t& value,
                                 const std::string& help) {
  side_->last = side_->app.add_option(name, value, help);
  return *this;
}

CommandLine& CommandLine::flag(const std::string& name, bool& value, const std::string& help) {
  side_->last = side_->app.add_flag(name, value, help);
  return *this;
}

CommandLine& CommandLine::version(const std::string& text) {
  side_->app.set_version_flag("--version", text);
  return *this;
}

CommandLine& CommandLine::hidden() {
  side_->last->group("");
  return *this;
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
  try {
    side_->app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    return side_->app.exit(error) == 0 ? 0 : kWrongArguments;
  }
}

}  // namespace base
