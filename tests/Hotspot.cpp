// Clients as events of the host.
#include "tests/Hotspot.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <algorithm>

#include "base/Patience.h"
#include "tests/PresentManager.h"
#include "tests/Sleepers.h"

Bytes Client::macBytes() const {
  return {10, 0, 0, 0, 0, static_cast<std::uint8_t>(number)};
}
std::string Client::mac() const {
  return "0a:00:00:00:00:0" + std::to_string(number);
}
std::string Client::ipv4() const {
  return "10.0.0." + std::to_string(number);
}
std::string Client::ipv6() const {
  return "2001:0db8:0000:0000:0000:0000:0000:000" + std::to_string(number);
}

Hotspot::~Hotspot() {
  stop();
  EXPECT_TRUE(cleanUpsEnd());
}

void Hotspot::start() {
  static_cast<void>(init_ct_mgr(&host.zan));
  PresentManager::read(table);
  gate = PresentManager::gate();
}

int Hotspot::stop() {
  return PresentManager::stop();
}

void Hotspot::announce(const Client& client) {
  for (const std::string& address : {client.ipv4(), client.ipv6()}) {
    host.receive(kNeighbourSocket, neighbourMessage(RTM_NEWNEIGH, address, client.macBytes()));
  }
}

void Hotspot::arrives(const std::vector<Client>& clients) {
  for (const Client& client : clients) {
    announce(client);
    present.push_back(client.mac());
  }
  reportClients(present);
}

void Hotspot::leaves(const std::vector<Client>& clients) {
  for (const Client& client : clients) std::erase(present, client.mac());
  reportClients(present);
}

void Hotspot::reportClients(const ZanDsmTextList& macs) {
  present = macs;
  host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_SAP_CLIENTS, &present);
}

void Hotspot::losesUpstream(const ZanDsmTextList& addresses) {
  host.zan.zanDsm.dispatchEvent(ZAN_DSM_EVENT_UPSTREAM_IP_LOST, &addresses);
}

bool Hotspot::knows(const Client& client) {
  return PresentManager::neighbours().getNeighInfo(client.mac()).macAddr[0] != '\0';
}

Hotspot::Ports Hotspot::deleted() {
  PresentManager::awaitDeletions();
  return deletedSoFar();
}

Hotspot::Ports Hotspot::deletedSoFar() {
  constexpr std::size_t kSourcePort = 12;  // from the end of a request
  constexpr std::size_t kDestinationPort = 4;
  Ports ports;
  for (const Bytes& request : host.requests()) {
    const auto portAt = [&](std::size_t fromEnd) {
      const std::uint8_t* bytes = request.data() + request.size() - fromEnd;
      return bytes[0] << 8 | bytes[1];
    };
    // The servers' ports are lower.
    ports.push_back(std::max(portAt(kSourcePort), portAt(kDestinationPort)));
  }
  std::sort(ports.begin(), ports.end());
  return ports;
}

bool Hotspot::cleanUpsEnd() const {
  const long holders = gConnTrackMgr == nullptr ? 1 : 2;  // this, and the manager
  return base::eventually([&] {
    sleepers::wake();
    return gate.use_count() <= holders;
  });
}
