// A modem at the desk: what stands behind the framework's modem interface.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/Agreement.h"
#include "host/ZanRix.h"

namespace framework {

/// State, listeners and prepared answers by interface. A command sets what a radio would report.
///
/// Thread: event thread.
class Modem {
 public:
  struct Interface {
    std::int32_t dormancy = kLinkActive;
    bool filterMode = false;
    std::optional<HalFilterInfo> filters;        ///< the record last installed
    std::optional<HalFilterInfo> listenFilters;  ///< the same for listen filters
    int installAnswer = kModemSuccess;
    int listenAnswer = kModemSuccess;
  };

  /// The interface's state, which begins as that of an idle radio.
  Interface& interface(const std::string& name) { return interfaces_[name]; }
  [[nodiscard]] const std::map<std::string, Interface>& interfaces() const { return interfaces_; }

  /// The link becomes dormant or active; dormancy listeners of |name| hear of it.
  void setDormancy(const std::string& name, std::int32_t status);

  /// The modem stops filtering; filtering listeners of |name| hear of it.
  void endFiltering(const std::string& name);

  /// A listener, identified by the triple that registered it.
  template <typename Callback>
  struct Listener {
    std::string ifaceName;
    Callback callback;
    void* cbData;
    bool operator==(const Listener&) const = default;
  };
  std::vector<Listener<ZanRix::WdsCallback>> dormancyListeners;
  std::vector<Listener<ZanRix::DfsCallback>> filteringListeners;

 private:
  std::map<std::string, Interface> interfaces_;
};

}  // namespace framework
