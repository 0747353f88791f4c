// The framework's data-service monitor: mobile-data and hotspot state, and events about both.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "host/EventDispatcher.h"
#include "host/ZanDsmEvents.h"

/// Thread: event thread only.
class ZanDsm : public EventDispatcher<ZanDsmEvent> {
 public:
  ZanDsm();
  ~ZanDsm();

  /// Every WWAN interface by kernel name, in name order. The copy is the caller's.
  std::map<std::string, _ZanDsmWwanInfoType> getAllWwanInfo();

  /// The record of |ifaceName|; one with the default values when there is no such interface.
  _ZanDsmWwanInfoType getWwanInfo(const char* ifaceName);

  /// Non-zero while tethering is on. Kept by the framework.
  std::int32_t tetheringIndicator = 0;

 private:
  friend struct HostSides;
  struct HostSide;  ///< the monitor's own state, which only the framework changes
  std::unique_ptr<HostSide> side;
};
