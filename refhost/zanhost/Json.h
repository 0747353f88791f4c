// What the reference host writes as JSON, apart from its status (refhost/zanhost/HostStatus.h).
#pragma once

#include <string>

namespace zanhost {

/// One line of the log.
struct LogLine {
  std::string time;
  int level;
  std::string module;
  std::string text;
};

/// {"time":"...","level":2,"module":"CT_MGR","text":"..."}; what is not UTF-8 is replaced.
[[nodiscard]] std::string logLineJson(const LogLine& line);

}  // namespace zanhost
