// A program's command line.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace base {

/// Declares options and parses them; the values go to the variables that were named, which must
/// outlive parse(), and stay as they were for options that are not given.
///
/// A narrow front to CLI11, whose header takes longer to compile than most programs that need it.
class CommandLine {
 public:
  /// Exit status of a program whose command line is wrong.
  static constexpr int kWrongArguments = 2;

  /// |footer| ends the help text.
  CommandLine(const std::string& description, const std::string& footer);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  /// |name| is "--name" for an option with a value, "NAME" for one that is known by its place.
  CommandLine& text(const std::string& name, std::string& value, const std::string& help);

  /// May be given several times; "NAME" takes all that remains.
  CommandLine& texts(const std::string& name, std::vector<std::string>& values,
                     const std::string& help);

  /// One of |accepted|.
  CommandLine& choice(const std::string& name, std::string& value,
                      const std::vector<std::string>& accepted, const std::string& help);

  /// A whole number from |least| to |most|; the help shows what |value| holds as the default.
  CommandLine& number(const std::string& name, int& value, int least, int most,
                      const std::string& help);

  /// Any number that fits.
  CommandLine& number(const std::string& name, std::uint32_t& value, const std::string& help);

  CommandLine& flag(const std::string& name, bool& value, const std::string& help);

  /// Lets --version print |text|.
  CommandLine& version(const std::string& text);

  /// Leaves the option declared last out of the help text.
  CommandLine& hidden();

  /// Nothing when the program is to go on. Otherwise its exit status: 0 when help or the version
  /// was asked for and printed, kWrongArguments when standard error has been told what is wrong.
  [[nodiscard]] std::optional<int> parse(int argc, char** argv);

 private:
  struct Side;
  std::unique_ptr<Side> side_;
};

}  // namespace base
