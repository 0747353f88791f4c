// What each command does to the host object, and its answer.
#include "refhost/zanhost/HostSession.h"

#include <fmt/format.h>

#include "refhost/framework/HostSides.h"
#include "refhost/zanhost/HostStatus.h"

namespace zanhost {

HostSession::HostSession(int channel)
    : wwan_(zan_),
      clients_(zan_),
      stations_(
          HostSides::loopOf(zan_.zanCom),
          [this](const std::string& name) { return nl80211_->look(name); },
          [this](const auto& stations) { clients_.replaceStations(stations); }) {
  zan_.commandChannelFd = channel;
}

void HostSession::followHotspots(const std::vector<std::string>& names) {
  if (names.empty()) return;
  nl80211_ =
      std::make_unique<Nl80211>(HostSides::loopOf(zan_.zanCom), [this] { stations_.noteChange(); });
  stations_.follow(names);
}

void HostSession::execute(const Command& command, AnswerQueue& answers) {
  answers_ = &answers;
  std::visit([this](const auto& specific) { carryOut(specific); }, command);
}

void HostSession::carryOut(const ClientsCommand& command) {
  const std::size_t departed = clients_.replaceTyped(command.clients);
  answer(fmt::format("clients: {} now, {} departed", HostSides::sapClientsOf(zan_.zanDsm).size(),
                     departed));
  clients_.dispatch();
}

void HostSession::carryOut(const UpstreamLostCommand& command) {
  answer(fmt::format("upstream-lost: {} reported", fmt::join(command.addresses, ", ")));
  const ZanDsmTextList payload = command.addresses;
  zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, &payload);
}

void HostSession::carryOut(const StatusCommand& command) {
  const HostStatus status = readHostStatus(zan_);
  answer(command.json ? status.json() : status.text());
}

void HostSession::carryOut(const WaitCommand& command) {
  answer(fmt::format("wait: {} ms", command.time.count()));
}

void HostSession::carryOut(const HelpCommand& /*command*/) {
  std::string help = commandHelp();
  help.pop_back();
  answer(help);
}

void HostSession::carryOut(const QuitCommand& /*command*/) {
  answer("quit");
  HostSides::loopOf(zan_.zanCom).stop();
}

void HostSession::carryOut(const WwanCommand& command) {
  answer(fmt::format("wwan: {} is {}", command.ifaceName,
                     command.status == ZAN_WWAN_STATUS_CONNECTED ? "connected" : "disconnected"));
  wwan_.setStatus(command.ifaceName, command.status);
}

void HostSession::carryOut(const ApnsCommand& command) {
  wwan_.setApns(command.ifaceName, command.apns);
  answer(fmt::format("apns: {} on {}", command.apns.size(), command.ifaceName));
}

void HostSession::carryOut(const TetheringCommand& command) {
  answer(fmt::format("tethering: {}", command.state == kTetheringOn ? "on" : "off"));
  zan_.zanDsm.tetheringIndicator = command.state;
  zan_.zanDsm.dispatchEvent(ZAN_DSM_EVENT_TETHERING_STATE, &command.state);
}

void HostSession::carryOut(const DormancyCommand& command) {
  const bool dormant = command.status == kLinkDormant;
  const std::string lack = dormant ? wwan_.lacks(command.ifaceName) : std::string();
  answer(fmt::format(
      "dormancy: {} is {}{}", command.ifaceName, dormant ? "dormant" : "active",
      lack.empty() ? ""
                   : "; no filters, no timer: " + lack + "; say it again once it is connected"));
  HostSides::modemOf(zan_.zanRix).setDormancy(command.ifaceName, command.status);
}

void HostSession::carryOut(const FilteringEndedCommand& command) {
  answer(fmt::format("filtering-ended: {}", command.ifaceName));
  HostSides::modemOf(zan_.zanRix).endFiltering(command.ifaceName);
}

void HostSession::carryOut(const ModemAnswerCommand& command) {
  framework::Modem::Interface& interface =
      HostSides::modemOf(zan_.zanRix).interface(command.ifaceName);
  (command.listenFilters ? interface.listenAnswer : interface.installAnswer) = command.answer;
  answer(fmt::format("modem-answer: {} {} {}", command.ifaceName,
                     command.listenFilters ? "listen" : "install", command.answer));
}

}  // namespace zanhost
