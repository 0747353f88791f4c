// What may stand as an interface's name in a command.
#pragma once

#include <net/if.h>

#include <algorithm>
#include <cctype>
#include <string>

namespace base {

/// Whether |name| is one: what the kernel takes (IFNAMSIZ, with its NUL), less what could be read
/// as an option, a wildcard or a path.
[[nodiscard]] inline bool isInterfaceName(const std::string& name) {
  const auto isPlain = [](unsigned char character) {
    return std::isalnum(character) != 0 || character == '_' || character == '-' || character == '.';
  };
  return !name.empty() && name.size() < IFNAMSIZ &&
         std::isalnum(static_cast<unsigned char>(name.front())) != 0 &&
         std::all_of(name.begin(), name.end(), isPlain);
}

/// What to say of |name|, which is none.
[[nodiscard]] inline std::string noInterfaceName(const std::string& name) {
  return "'" + name + "' is no interface name: up to " + std::to_string(IFNAMSIZ - 1) +
         " letters, digits, '_', '-' and '.', the first one a letter or a digit";
}

}  // namespace base
