// What the host program says: its state and its log, both as JSON.
#include "lab/HostOutput.h"

#include <nlohmann/json.hpp>

#include "lab/Error.h"

namespace lab {
namespace {

std::optional<std::string> firstText(const nlohmann::json& record) {
  if (record.is_null()) return std::nullopt;
  return record.at("text1").get<std::string>();
}

HostState::Interface parseInterface(const nlohmann::json& interface) {
  return {interface.at("connected").get<bool>(), interface.at("dormancy") == "dormant",
          interface.at("filterMode").get<bool>(), firstText(interface.at("filters")),
          firstText(interface.at("listenFilters"))};
}

HostState parseState(const nlohmann::json& json) {
  const auto count = [&json](const char* group, const char* name) {
    return json.at(group).at(name).get<std::size_t>();
  };
  HostState state;
  json.at("clients").get_to(state.clients);
  state.deletions = {count("deletions", "requested"), count("deletions", "deleted"),
                     count("deletions", "alreadyGone"), count("deletions", "refused")};
  state.neighbourEvents = count("neighbours", "events");
  state.neighbourOverruns = count("neighbours", "overruns");
  state.tethering = json.at("tethering").get<bool>();
  for (const auto& [name, interface] : json.at("interfaces").items()) {
    state.interfaces[name] = parseInterface(interface);
  }
  state.pid = json.at("privileges").at("pid").get<pid_t>();
  json.at("privileges").at("capabilities").get_to(state.capabilities);
  return state;
}

}  // namespace

std::string HostState::Deletions::text() const {
  return std::to_string(requested) + " requested: " + std::to_string(deleted) + " deleted, " +
         std::to_string(alreadyGone) + " already gone, " + std::to_string(refused) + " refused";
}

HostState::Interface HostState::interface(const std::string& name) const {
  const auto found = interfaces.find(name);
  return found == interfaces.end() ? Interface{} : found->second;
}

HostState HostState::parse(const std::string& answer) {
  try {
    return parseState(nlohmann::json::parse(answer));
  } catch (const nlohmann::json::exception& error) {
    throw Error("the host's status cannot be read: " + std::string(error.what()) + ": " + answer);
  }
}

HostLogLine HostLogLine::parse(const std::string& line) {
  const auto now = std::chrono::steady_clock::now();
  try {
    const nlohmann::json json = nlohmann::json::parse(line);
    return {now, json.at("module").get<std::string>(), json.at("text").get<std::string>()};
  } catch (const nlohmann::json::exception&) {
    return {now, "", line};
  }
}

}  // namespace lab
