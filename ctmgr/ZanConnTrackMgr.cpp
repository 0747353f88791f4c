#include "ctmgr/ZanConnTrackMgr.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

#include "ctmgr/Log.h"
#include "ctmgr/NumberProperty.h"
#include "host/Agreement.h"

ZanConnTrackMgr* gConnTrackMgr = nullptr;

namespace {

constexpr int kModule = ZAN_LOG_MODULE_CT_MGR;

constexpr char kDisableProperty[] = "persist.vendor.zan.disable.sap.conntrack";

/// The framework's tag for the socket that carries delete requests.
constexpr unsigned int kConntrackSocketTag = 273;

constexpr ZanDsmEvent kEvents[] = {ZAN_DSM_EVENT_WWAN_STATUS, ZAN_DSM_EVENT_SAP_CLIENTS,
                                   ZAN_DSM_EVENT_UPSTREAM_IP_LOST};

/// Runs |body| on a thread that nobody waits for. A thread that cannot be started ends the
/// process.
template <typename Body>
void startDetached(Body body) {
  std::thread(std::move(body)).detach();
}

}  // namespace

int init_ct_mgr(Zan* host) {
  if (host == nullptr || gConnTrackMgr != nullptr) return -1;
  gConnTrackMgr = new ZanConnTrackMgr(*host);
  return 0;
}

int deinit_ct_mgr() {
  if (gConnTrackMgr == nullptr) return -1;
  delete gConnTrackMgr;
  gConnTrackMgr = nullptr;
  return 0;
}

ZanConnTrackMgr::ZanConnTrackMgr(Zan& zan) : host(zan), connTrackUtils(zan) {
  ZAN_LOG_ENTRY(kModule, "ZanConnTrackMgr::ZanConnTrackMgr(Zan &)", __LINE__);
  zanDsm = &host.zanDsm;
  zanRix = &host.zanRix;
  if (connTrackUtils.setPrivilegeParams() == -1) {
    ZAN_LOG(kModule, kLogWarning, "ZanConnTrackMgr Failed to set Privilege Params");
  }
  for (const ZanDsmEvent event : kEvents) zanDsm->regEventCallback(event, dsmEventHandler, this);
  trackConnectedInterfaces();

  if (readSapConnTrackProperty() != 0) return;
  zanCom = &host.zanCom;
  netlinkMgr = new (std::nothrow) ZanNetlinkMgr(*zanCom, *zanDsm, connTrackUtils);
  conntrackParser = new (std::nothrow) ZanConnTrackParser(connTrackUtils);
  if (netlinkMgr == nullptr) {
    ZAN_LOG(kModule, kLogWarning, "netlinkMgr / conntrackParser com obj is NULL");
    return;
  }
  deleter->conntrackSocket = new ZanNetlinkSocket(NETLINK_NETFILTER, kConntrackSocketTag);
}

ZanConnTrackMgr::~ZanConnTrackMgr() {
  ZAN_LOG_ENTRY(kModule, "ZanConnTrackMgr::~ZanConnTrackMgr()", __LINE__);
  for (const auto& tracker : ifTrackers) delete tracker.second;
  ifTrackers.clear();
  for (const ZanDsmEvent event : kEvents) zanDsm->deregEventCallback(event, dsmEventHandler, this);
  if (conntrackParser != nullptr) conntrackParser->turnCleanUpsAway();
  workers->closeAndWait();
  delete netlinkMgr;
  delete conntrackParser;
}

void ZanConnTrackMgr::dsmEventHandler(ZanDsmEvent event, const void* evtData, void* cbData) {
  if (evtData == nullptr || cbData == nullptr || cbData != gConnTrackMgr) {
    ZAN_LOG(kModule, kLogWarning, "Incorrect info passed evtData:0x%x cbData:0x%x myself:0x%x",
            ctmgr::logWord(evtData), ctmgr::logWord(cbData), ctmgr::logWord(gConnTrackMgr));
    return;
  }
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackMgr::dsmEventHandler event: %d", event);
  switch (event) {
    case ZAN_DSM_EVENT_UPSTREAM_IP_LOST: {
      auto addresses = *static_cast<const ZanDsmTextList*>(evtData);
      ZAN_LOG(kModule, kLogTrace, "ZanConnTrackMgr::dsmEventHandler Lost IpAddresses Size %d",
              static_cast<int>(addresses.size()));
      gConnTrackMgr->processUpStreamIpLostEvent(addresses);
      return;
    }
    case ZAN_DSM_EVENT_SAP_CLIENTS: {
      auto clients = *static_cast<const ZanDsmTextList*>(evtData);
      ZAN_LOG(kModule, kLogTrace, "ZanConnTrackMgr::dsmEventHandler sapClientList Size %d",
              static_cast<int>(clients.size()));
      gConnTrackMgr->processSapClientsChanged(clients);
      return;
    }
    case ZAN_DSM_EVENT_WWAN_STATUS:
      gConnTrackMgr->processWwanStatus(*static_cast<const ZanDsmWwanStatusInfo*>(evtData));
      return;
    default:
      ZAN_LOG(kModule, kLogUnhandled, "unhandled event:%d", event);
      return;
  }
}

/// Interfaces that came up before the plug-in did.
void ZanConnTrackMgr::trackConnectedInterfaces() {
  for (const auto& [ifaceName, info] : zanDsm->getAllWwanInfo()) {
    const std::list<ZanApnType> apnList = info.apnList;
    ZAN_LOG(kModule, kLogWarning, "ConnTrack Apn list %d", static_cast<int>(apnList.size()));
    for (const ZanApnType apn : apnList) {
      ZAN_LOG(kModule, kLogWarning, "ConnTrack Apn %d", apn);
      if (info.status != ZAN_WWAN_STATUS_CONNECTED || apn != ZAN_APN_TYPE_DEFAULT) continue;
      ZAN_LOG(kModule, kLogNotice, "ConnTracker Apn %d ,Status %d", apn, info.status);
      createIfConTracker(ifaceName);
    }
  }
}

void ZanConnTrackMgr::processWwanStatus(const ZanDsmWwanStatusInfo& info) {
  const std::string ifaceName(info.ifaceName, strnlen(info.ifaceName, sizeof(info.ifaceName)));
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackMgr::dsmEventHandler status: %d iface: %s : apnList Size %d",
          static_cast<int>(info.status), ifaceName.c_str(), static_cast<int>(info.apnList.size()));
  const std::list<ZanApnType> apnList = info.apnList;
  if (info.status == ZAN_WWAN_STATUS_DISCONNECTED) {
    destroyIfConTracker(ifaceName);
  } else if (info.status == ZAN_WWAN_STATUS_CONNECTED) {
    for (const ZanApnType apn : apnList) {
      if (apn == ZAN_APN_TYPE_DEFAULT) createIfConTracker(ifaceName);
    }
  }
}

void ZanConnTrackMgr::createIfConTracker(std::string ifaceName) {
  if (ifTrackers.count(ifaceName) != 0) return;
  auto* tracker = new ZanIfConnTracker(host, connTrackUtils, *zanRix, ifaceName);
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackMgr::createIfConTracker ifaceName: %s",
          ifaceName.c_str());
  ifTrackers.emplace(ifaceName, tracker);
  tracker->regIdleStatusChgEvt(idleTimerExpHdlr, this);
}

void ZanConnTrackMgr::destroyIfConTracker(std::string ifaceName) {
  const auto found = ifTrackers.find(ifaceName);
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackMgr::destroyIfConTracker ifaceName: %s",
          ifaceName.c_str());
  if (found == ifTrackers.end()) return;
  delete found->second;
  ifTrackers.erase(found);
}

void ZanConnTrackMgr::idleTimerExpHdlr(const void* eventData, void* cbData, std::string ifaceName) {
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackMgr::idleTimerExpHdlr idleStatus = %d",
          *static_cast<const std::uint8_t*>(eventData));
  if (cbData == nullptr) return;
  static_cast<ZanConnTrackMgr*>(cbData)->listenFilterTimerExpHdlr(eventData, ifaceName);
}

void ZanConnTrackMgr::listenFilterTimerExpHdlr(const void* eventData, std::string ifaceName) {
  if (eventData == nullptr) {
    ZAN_LOG(kModule, kLogWarning, "ZanConnTrackMgr::listenFilterTimerExpHdlr:eventData is NULL");
    return;
  }
  const std::uint8_t idleStatus = *static_cast<const std::uint8_t*>(eventData);
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackMgr::listenFilterTimerExpHdlr idleStatus = %d",
          idleStatus);
  if (idleStatus == 0) return;
  const auto found = ifTrackers.find(ifaceName);
  if (found != ifTrackers.end() && found->second != nullptr) found->second->instalListenFilters();
}

int ZanConnTrackMgr::readSapConnTrackProperty() {
  return ctmgr::readNumberProperty(kDisableProperty);
}

bool ZanConnTrackMgr::flushesEnabled() const {
  return netlinkMgr != nullptr && conntrackParser != nullptr;
}

void ZanConnTrackMgr::processSapClientsChanged(std::vector<std::string>& sapClientList) {
  if (sapClientList == sapClients) {
    ZAN_LOG(kModule, kLogNotice, "ZanConnTrackMgr::No change in sap clients");
    return;
  }
  disconnectedSapClients.clear();
  for (const std::string& client : sapClients) {
    const bool stays =
        std::find(sapClientList.begin(), sapClientList.end(), client) != sapClientList.end();
    if (!stays) disconnectedSapClients.push_back(client);
  }
  sapClients = sapClientList;
  processDisconnectedSapClients(disconnectedSapClients);
}

void ZanConnTrackMgr::processDisconnectedSapClients(std::vector<std::string>& clients) {
  ctmgr::TableQuestion question(ctmgr::ReadingTurns::Asker::kEvent);
  question.askedAgain = clients.size() > 1;
  for (const std::string& client : clients) {
    ZAN_LOG(kModule, kLogNotice,
            "ZanConnTrackMgr::processDisconnectedSapClients: Disconnected client Info %s",
            client.c_str());
    flush(client, question);
    if (!flushesEnabled()) continue;
    startDetached([gate = workers, this, client] { flushAgain(gate, this, client); });
  }
}

void ZanConnTrackMgr::processDisconnectedSapClient(std::string client) {
  ctmgr::TableQuestion question(ctmgr::ReadingTurns::Asker::kEvent);
  flush(client, question);
}

/// One flush of |client|. False when |question| was turned away.
bool ZanConnTrackMgr::flush(const std::string& client, ctmgr::TableQuestion& question) {
  _ZanNeighInfoType neighbour{};
  if (netlinkMgr != nullptr) neighbour = netlinkMgr->getNeighInfo(client);
  const int fd = connTrackUtils.getPrivilegeParams();
  if (fd == -1) {
    ZAN_LOG(kModule, kLogError, "ZanConnTrackMgr::Failed to get Nf_connTrack Descriptor");
    return true;
  }
  if (!flushesEnabled()) return true;
  const ZanConnTrackFileParseControlType control{kConntrackTablePath, neighbour.ipv4Addr,
                                                 neighbour.ipv6Addr};
  std::list<ZanConnTrackFilter_s> v4;
  std::list<ZanConnTrackFilter_s> v6;
  const int result = conntrackParser->parseNfConnTrackFile(control, v4, v6, fd, question);
  if (result == ZanConnTrackParser::kTurnedAway) return false;
  if (result != ZanConnTrackParser::kMatched) {
    ZAN_LOG(kModule, kLogError, "ZanConnTrackMgr:: Failed to parse %s", kConntrackTablePath);
  }
  startDeletion(std::move(v4), std::move(v6));
  return true;
}

void ZanConnTrackMgr::cleanUpRemainingEntries(std::string client) {
  flushAgain(workers, this, client);
}

/// |mgr| is valid only while a pass is held.
void ZanConnTrackMgr::flushAgain(std::shared_ptr<ctmgr::WorkerGate> gate, ZanConnTrackMgr* mgr,
                                 std::string client) {
  constexpr int kFlushes = 2;
  for (int flush = 1; flush <= kFlushes; ++flush) {
    std::this_thread::sleep_for(std::chrono::seconds(SAP_CLIENT_RECHECK_DELAY));
    ctmgr::TableQuestion question(ctmgr::ReadingTurns::Asker::kCleanUp);
    const auto pass = gate->enter();
    if (!pass || !mgr->flush(client, question)) return;
    if (flush == kFlushes && mgr->netlinkMgr != nullptr) mgr->netlinkMgr->delNeighInfoEntry(client);
  }
}

void ZanConnTrackMgr::processUpStreamIpLostEvent(std::vector<std::string>& lostIpAddresses) {
  const int fd = connTrackUtils.getPrivilegeParams();
  if (fd == -1) {
    ZAN_LOG(kModule, kLogError, "ZanConnTrackMgr::Failed to get Nf_connTrack Descriptor");
    return;
  }
  if (!flushesEnabled()) return;
  std::vector<std::string> clientAddresses;
  netlinkMgr->getNeighipv4Addresses(clientAddresses);
  std::list<ZanConnTrackFilter_s> v4;
  conntrackParser->parseNfConnTrackFile(clientAddresses, lostIpAddresses, v4, fd);
  startDeletion(std::move(v4), {});
}

/// Leaves the lists for a worker, once the one before has taken its own, and starts it.
void ZanConnTrackMgr::startDeletion(std::list<ZanConnTrackFilter_s> v4,
                                    std::list<ZanConnTrackFilter_s> v6) {
  {
    const ctmgr::MutexLock lock(listMutex);
    while (listsWait) listsTaken.wait(listMutex);
    v4DeleteList = std::move(v4);
    v6DeleteList = std::move(v6);
    listsWait = true;
  }
  startDetached([this, pass = workers->hold()]() mutable { deleteEntries(this, std::move(pass)); });
}

void ZanConnTrackMgr::deleteConntrackEntries(void* mgr) {
  if (mgr == nullptr) {
    ZAN_LOG(kModule, kLogError, "ZanConnTrackMgr:: ZanConnTrackMgr instance is NULL!");
    return;
  }
  auto* self = static_cast<ZanConnTrackMgr*>(mgr);
  deleteEntries(self, self->workers->hold());
}

/// Takes a copy of the lists under |pass|; |mgr| may be gone when the first request goes out.
void ZanConnTrackMgr::deleteEntries(ZanConnTrackMgr* mgr, ctmgr::WorkerGate::Pass pass) {
  const std::shared_ptr<ctmgr::ConntrackDeleter> deleter = mgr->deleter;
  std::list<ZanConnTrackFilter_s> v4;
  std::list<ZanConnTrackFilter_s> v6;
  {
    const ctmgr::MutexLock lock(mgr->listMutex);
    v4 = mgr->v4DeleteList;
    v6 = mgr->v6DeleteList;
    mgr->listsWait = false;
    mgr->listsTaken.notifyOne();
  }
  pass.giveBack();
  deleter->deleteV4(v4);
  deleter->deleteV6(v6);
}

void ZanConnTrackMgr::deleteV4ConntrackEntries(std::list<ZanConnTrackFilter_s>& entries) {
  deleter->deleteV4(entries);
}

void ZanConnTrackMgr::deleteV6ConntrackEntries(std::list<ZanConnTrackFilter_s>& entries) {
  deleter->deleteV6(entries);
}

int ZanConnTrackMgr::fillNetlinkHeader(nlmsghdr* msg, std::uint8_t family) {
  ctmgr::fillDeleteHeader(msg, family, ++deleter->deleteSeq);
  return 0;
}

int ZanConnTrackMgr::fillTupleInfo(nlmsghdr* msg, ctTuple* tuple) {
  return ctmgr::appendTuple(msg, *tuple) ? 1 : 0;
}
