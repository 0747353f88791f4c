// The JSON of log lines and of the status.
#include "refhost/zanhost/Json.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "refhost/zanhost/HostStatus.h"

namespace zanhost {
namespace {

nlohmann::ordered_json recordJson(const std::optional<HalFilterInfo>& record) {
  if (!record) return nullptr;
  return {{"wwanStatus", record->wwanStatus},
          {"text1", record->wwanText1},
          {"text2", record->wwanText2},
          {"icmpFilterDisabled", record->icmpFilterDisabled}};
}

nlohmann::ordered_json interfaceJson(const HostStatus::Interface& interface) {
  return {{"connected", interface.connected},
          {"apns", interface.apns},
          {"dormancy", interface.dormancy},
          {"filterMode", interface.filterMode},
          {"filters", recordJson(interface.filters)},
          {"listenFilters", recordJson(interface.listenFilters)}};
}

}  // namespace

std::string logLineJson(const LogLine& line) {
  const nlohmann::ordered_json json{
      {"time", line.time}, {"level", line.level}, {"module", line.module}, {"text", line.text}};
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string HostStatus::json() const {
  nlohmann::ordered_json byName = nlohmann::ordered_json::object();
  for (const Interface& interface : interfaces) byName[interface.name] = interfaceJson(interface);
  const nlohmann::ordered_json status{
      {"clients", clients},
      {"neighbours",
       {{"kernel", kernelNeighbours}, {"events", notifications}, {"overruns", overruns}}},
      {"deletions",
       {{"requested", requested},
        {"deleted", deleted},
        {"alreadyGone", alreadyGone},
        {"refused", refused}}},
      {"tethering", tethering},
      {"interfaces", byName},
      {"privileges",
       {{"pid", getpid()},
        {"uid", privileges.uid},
        {"gid", privileges.gid},
        {"capabilities", privileges.capabilities}}}};
  return status.dump();
}

}  // namespace zanhost
