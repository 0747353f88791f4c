// The modem control interface, over framework::Modem.
#include "host/ZanRix.h"

#include <algorithm>

#include "refhost/framework/HostSides.h"

namespace {

/// Registering again changes nothing: a listener hears of each event once.
template <typename Listeners>
int addListener(Listeners& listeners, typename Listeners::value_type listener) {
  if (std::find(listeners.begin(), listeners.end(), listener) == listeners.end()) {
    listeners.push_back(std::move(listener));
  }
  return 0;
}

template <typename Listeners>
int removeListener(Listeners& listeners, const typename Listeners::value_type& listener) {
  return std::erase(listeners, listener) != 0 ? 0 : -1;
}

}  // namespace

ZanRix::ZanRix() : side(std::make_unique<HostSide>()) {}

ZanRix::~ZanRix() = default;

int ZanRix::regDormancyStatusChgEvent(std::string ifaceName, WdsCallback callback, void* cbData) {
  return addListener(side->modem.dormancyListeners, {std::move(ifaceName), callback, cbData});
}

int ZanRix::deRegDormancyStatusChgEvent(std::string ifaceName, WdsCallback callback, void* cbData) {
  return removeListener(side->modem.dormancyListeners, {std::move(ifaceName), callback, cbData});
}

int ZanRix::regFilteringStatusChgEvent(std::string ifaceName, DfsCallback callback, void* cbData) {
  return addListener(side->modem.filteringListeners, {std::move(ifaceName), callback, cbData});
}

int ZanRix::deRegFilteringStatusChgEvent(std::string ifaceName, DfsCallback callback,
                                         void* cbData) {
  return removeListener(side->modem.filteringListeners, {std::move(ifaceName), callback, cbData});
}

int ZanRix::getDormancyStatus(std::string ifaceName) {
  return side->modem.interface(ifaceName).dormancy;
}

int ZanRix::setDfsFilterMode(std::string ifaceName, bool enabled) {
  side->modem.interface(ifaceName).filterMode = enabled;
  return 0;
}

int ZanRix::installFilters(HalFilterInfo info, int /*conntrackFd*/) {
  framework::Modem::Interface& interface = side->modem.interface(info.ifaceName);
  if (interface.installAnswer == kModemSuccess) interface.filters = std::move(info);
  return interface.installAnswer;
}

int ZanRix::uninstallFilters(std::string ifaceName) {
  framework::Modem::Interface& interface = side->modem.interface(ifaceName);
  interface.filters.reset();
  interface.listenFilters.reset();
  return 0;
}

int ZanRix::installListenFilters(HalFilterInfo info) {
  framework::Modem::Interface& interface = side->modem.interface(info.ifaceName);
  if (interface.listenAnswer == kModemSuccess) interface.listenFilters = std::move(info);
  return interface.listenAnswer;
}
