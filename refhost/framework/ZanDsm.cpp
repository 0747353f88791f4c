// The data-service monitor's records.
#include "host/ZanDsm.h"

#include "refhost/framework/HostSides.h"

ZanDsm::ZanDsm() : side(std::make_unique<HostSide>()) {}

ZanDsm::~ZanDsm() = default;

std::map<std::string, _ZanDsmWwanInfoType> ZanDsm::getAllWwanInfo() {
  return side->wwanInfo;
}

_ZanDsmWwanInfoType ZanDsm::getWwanInfo(const char* ifaceName) {
  const auto found = side->wwanInfo.find(ifaceName);
  return found == side->wwanInfo.end() ? _ZanDsmWwanInfoType{} : found->second;
}
