// How the modem at the desk tells its listeners.
#include "refhost/framework/Modem.h"

#include <algorithm>

namespace framework {
namespace {

/// Calls everyone who listens for |name|. Listeners may come and go meanwhile: whoever has gone is
/// not called any more, whoever is new is not called yet.
template <typename Listener, typename Event>
void report(std::vector<Listener>& listeners, Event event, const ZanRixStatusRecord& record) {
  const std::vector<Listener> now = listeners;
  for (const Listener& listener : now) {
    if (listener.ifaceName != record.ifaceName) continue;
    if (std::find(listeners.begin(), listeners.end(), listener) == listeners.end()) continue;
    listener.callback(event, &record, listener.cbData);
  }
}

}  // namespace

void Modem::setDormancy(const std::string& name, std::int32_t status) {
  interfaces_[name].dormancy = status;
  report(dormancyListeners, ZAN_RIX_WDS_EVENT_DORMANCY_STATUS, {name, status});
}

void Modem::endFiltering(const std::string& name) {
  report(filteringListeners, ZAN_RIX_DFS_EVENT_FILTERING_STATUS, {name, kFilteringEnded});
}

}  // namespace framework
