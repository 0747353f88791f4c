// What the lab throws.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace lab {

/// Thrown when the lab cannot be set up or cannot see what it has to see. The text is for the
/// person in front of the terminal: what failed, why, and what would help.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// "|what|: <text of |error|>", followed by " (|advice|)" unless that is empty.
[[nodiscard]] inline Error systemError(const std::string& what, int error = errno,
                                       const std::string& advice = {}) {
  const std::string text = what + ": " + std::generic_category().message(error);
  return Error(advice.empty() ? text : text + " (" + advice + ")");
}

}  // namespace lab
