// The store of system properties, and property_get() over it.
#include "refhost/framework/Properties.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "host/Properties.h"

namespace framework {

PropertyStore& PropertyStore::instance() {
  static PropertyStore store;
  return store;
}

std::optional<std::string> PropertyStore::assign(const std::string& assignment) {
  const std::size_t equals = assignment.find('=');
  if (equals == std::string::npos || equals == 0) {
    return "'" + assignment + "' is not NAME=VALUE";
  }
  if (assignment.find_first_of(" \t") < equals) {
    return "'" + assignment + "' has a blank in its name; write NAME=VALUE";
  }
  const std::string value = assignment.substr(equals + 1);
  if (value.size() >= kPropertyValueMax) {
    return "the value of " + assignment.substr(0, equals) + " is " + std::to_string(value.size()) +
           " characters long; at most " + std::to_string(kPropertyValueMax - 1) + " fit";
  }
  values_[assignment.substr(0, equals)] = value;
  return std::nullopt;
}

std::optional<std::string> PropertyStore::load(const std::string& path) {
  std::ifstream file(path);
  if (!file) return "cannot open the properties file " + path + ": " + std::strerror(errno);
  PropertyStore loaded;
  loaded.values_ = values_;
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    if (line.empty() || line.front() == '#') continue;
    if (const auto wrong = loaded.assign(line)) {
      return path + ":" + std::to_string(number) + ": " + *wrong;
    }
  }
  if (file.bad()) return "cannot read the properties file " + path + ": " + std::strerror(errno);
  values_ = std::move(loaded.values_);
  return std::nullopt;
}

const std::string* PropertyStore::find(const std::string& name) const {
  const auto found = values_.find(name);
  return found == values_.end() ? nullptr : &found->second;
}

}  // namespace framework

int property_get(const char* key, char* value, const char* default_value) {
  const std::string* found = framework::PropertyStore::instance().find(key);
  const std::string text = found != nullptr           ? *found
                           : default_value != nullptr ? default_value
                                                      : "";
  const std::size_t length = text.copy(value, kPropertyValueMax - 1);
  value[length] = '\0';
  return static_cast<int>(length);
}
