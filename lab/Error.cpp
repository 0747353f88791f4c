// What the lab throws.
#include "lab/Error.h"

#include <system_error>

namespace lab {

Error systemError(const std::string& what, int error, const std::string& advice) {
  std::string text = what + ": " + std::generic_category().message(error);
  if (!advice.empty()) text += " (" + advice + ")";
  return Error(text);
}

}  // namespace lab
