// Texts in the form that execve(2) takes.
#pragma once

#include <string>
#include <vector>

namespace base {

/// Pointers into |texts|, which must stay as they are for as long as these are used, and a null.
[[nodiscard]] inline std::vector<char*> argumentVector(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace base
