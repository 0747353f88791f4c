#include "ctmgr/ZanConnTrackMgr.h"

#include <arpa/inet.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

#include "ctmgr/Log.h"
#include "ctmgr/NetlinkRequest.h"
#include "host/Properties.h"

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

ZanConnTrackMgr::ctTuple tupleOf(const ZanConnTrackFilter_s& record) {
  const std::size_t addressLength = record.af == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  ZanConnTrackMgr::ctTuple tuple{};
  std::memcpy(tuple.src, record.src, addressLength);
  std::memcpy(tuple.dst, record.dest, addressLength);
  tuple.l3protonum = static_cast<std::uint8_t>(record.af);
  tuple.protonum = static_cast<std::uint8_t>(record.protocol);
  tuple.srcPrt = htons(record.sport);
  tuple.dstPrt = htons(record.dport);
  return tuple;
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
  conntrackSocket = new ZanNetlinkSocket(NETLINK_NETFILTER, kConntrackSocketTag);
}

ZanConnTrackMgr::~ZanConnTrackMgr() {
  ZAN_LOG_ENTRY(kModule, "ZanConnTrackMgr::~ZanConnTrackMgr()", __LINE__);
  for (const auto& tracker : ifTrackers) delete tracker.second;
  ifTrackers.clear();
  for (const ZanDsmEvent event : kEvents) zanDsm->deregEventCallback(event, dsmEventHandler, this);
  workers->closeAndWait();
  delete netlinkMgr;
  delete conntrackParser;
}

void ZanConnTrackMgr::dsmEventHandler(ZanDsmEvent event, const void* evtData, void* cbData) {
  if (evtData == nullptr || cbData == nullptr || cbData != gConnTrackMgr) {
    ZAN_LOG(kModule, kLogWarning, "Incorrect info passed evtData:0x%x cbData:0x%x myself:0x%x",
            logWord(evtData), logWord(cbData), logWord(gConnTrackMgr));
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
  char value[kPropertyValueMax] = {};
  property_get(kDisableProperty, value, "0");
  return std::atoi(value);
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
  for (const std::string& client : clients) {
    ZAN_LOG(kModule, kLogNotice,
            "ZanConnTrackMgr::processDisconnectedSapClients: Disconnected client Info %s",
            client.c_str());
    processDisconnectedSapClient(client);
    if (!flushesEnabled()) continue;
    startDetached([gate = workers, this, client] { flushAgain(gate, this, client); });
  }
}

void ZanConnTrackMgr::processDisconnectedSapClient(std::string client) {
  _ZanNeighInfoType neighbour{};
  if (netlinkMgr != nullptr) neighbour = netlinkMgr->getNeighInfo(client);
  const int fd = connTrackUtils.getPrivilegeParams();
  if (fd == -1) {
    ZAN_LOG(kModule, kLogError, "ZanConnTrackMgr::Failed to get Nf_connTrack Descriptor");
    return;
  }
  if (!flushesEnabled()) return;
  const ZanConnTrackFileParseControlType control{kConntrackTablePath, neighbour.ipv4Addr,
                                                 neighbour.ipv6Addr};
  std::list<ZanConnTrackFilter_s> v4;
  std::list<ZanConnTrackFilter_s> v6;
  if (conntrackParser->parseNfConnTrackFile(control, v4, v6, fd) != ZanConnTrackParser::kMatched) {
    ZAN_LOG(kModule, kLogError, "ZanConnTrackMgr:: Failed to parse %s", kConntrackTablePath);
  }
  startDeletion(std::move(v4), std::move(v6));
}

void ZanConnTrackMgr::cleanUpRemainingEntries(std::string client) {
  flushAgain(workers, this, client);
}

/// Touches |mgr| only inside of |gate|: it may be gone after a sleep, and before the first one.
void ZanConnTrackMgr::flushAgain(std::shared_ptr<WorkerGate> gate, ZanConnTrackMgr* mgr,
                                 std::string client) {
  constexpr int kFlushes = 2;
  for (int flush = 1; flush <= kFlushes; ++flush) {
    std::this_thread::sleep_for(std::chrono::seconds(SAP_CLIENT_RECHECK_DELAY));
    const auto pass = gate->enter();
    if (!pass) return;
    mgr->processDisconnectedSapClient(client);
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

/// Leaves the lists for a worker and starts it.
void ZanConnTrackMgr::startDeletion(std::list<ZanConnTrackFilter_s> v4,
                                    std::list<ZanConnTrackFilter_s> v6) {
  deleteLists.put([&] {
    v4DeleteList = std::move(v4);
    v6DeleteList = std::move(v6);
  });
  startDetached([this, pass = workers->hold()] { deleteConntrackEntries(this); });
}

void ZanConnTrackMgr::deleteConntrackEntries(void* mgr) {
  if (mgr == nullptr) {
    ZAN_LOG(kModule, kLogError, "ZanConnTrackMgr:: ZanConnTrackMgr instance is NULL!");
    return;
  }
  auto* self = static_cast<ZanConnTrackMgr*>(mgr);
  std::list<ZanConnTrackFilter_s> v4;
  std::list<ZanConnTrackFilter_s> v6;
  self->deleteLists.take([&] {
    v4 = self->v4DeleteList;
    v6 = self->v6DeleteList;
  });
  self->deleteV4ConntrackEntries(v4);
  self->deleteV6ConntrackEntries(v6);
}

void ZanConnTrackMgr::deleteV4ConntrackEntries(std::list<ZanConnTrackFilter_s>& entries) {
  for (const ZanConnTrackFilter_s& entry : entries) {
    ctTuple tuple = tupleOf(entry);
    ZAN_LOG(kModule, kLogTrace,
            "DeleteV4Entry src: %u, dst: %u srcPrt %d, dstPrt %d, protonum %d l3protonum %d",
            addressWord(tuple.src, 0), addressWord(tuple.dst, 0), tuple.srcPrt, tuple.dstPrt,
            tuple.protonum, tuple.l3protonum);
    if (!sendDeleteRequest(tuple)) ZAN_LOG(kModule, kLogError, "fillTupleInfo v4 Failed");
  }
}

void ZanConnTrackMgr::deleteV6ConntrackEntries(std::list<ZanConnTrackFilter_s>& entries) {
  for (const ZanConnTrackFilter_s& entry : entries) {
    ctTuple tuple = tupleOf(entry);
// The line has six conversions for twelve values, so it shows the first six address words.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat"
    ZAN_LOG(kModule, kLogTrace,
            "DeleteV6Entry src: %u, dst: %u, srcPrt %d, dstPrt %d, protonum %d l3protonum %d",
            addressWord(tuple.src, 0), addressWord(tuple.src, 1), addressWord(tuple.src, 2),
            addressWord(tuple.src, 3), addressWord(tuple.dst, 0), addressWord(tuple.dst, 1),
            addressWord(tuple.dst, 2), addressWord(tuple.dst, 3), tuple.srcPrt, tuple.dstPrt,
            tuple.protonum, tuple.l3protonum);
#pragma GCC diagnostic pop
    if (!sendDeleteRequest(tuple)) ZAN_LOG(kModule, kLogError, "fillTupleInfo v6 Failed");
  }
}

/// False when the request could not be built; whether the kernel obeys is the socket's business.
bool ZanConnTrackMgr::sendDeleteRequest(ctTuple& tuple) {
  alignas(nlmsghdr) unsigned char buffer[DELETE_MSG_MAX_LEN] = {};
  auto* msg = reinterpret_cast<nlmsghdr*>(buffer);
  const std::lock_guard<std::mutex> lock(requestMutex);
  fillNetlinkHeader(msg, tuple.l3protonum);
  if (fillTupleInfo(msg, &tuple) == 0) return false;
  conntrackSocket->sendConntrackNetlinkMsg(msg);
  return true;
}

int ZanConnTrackMgr::fillNetlinkHeader(nlmsghdr* msg, std::uint8_t family) {
  msg->nlmsg_len = sizeof(nlmsghdr) + sizeof(nfgenmsg);
  msg->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_DELETE;
  msg->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  msg->nlmsg_seq = ++deleteSeq;
  msg->nlmsg_pid = 0;
  auto* header = static_cast<nfgenmsg*>(static_cast<void*>(msg + 1));
  header->nfgen_family = family;
  header->version = NFNETLINK_V0;
  header->res_id = 0;
  return 0;
}

// A delete request, offsets for IPv4 / IPv6 (linux/netfilter/nfnetlink_conntrack.h):
//
//    0       nlmsghdr   length 72 / 96
//   16       nfgenmsg   family
//   20       CTA_TUPLE_ORIG        nest, length 52 / 76
//   24         CTA_TUPLE_IP        nest, length 20 / 44
//   28           CTA_IP_V4_SRC     4 bytes       / CTA_IP_V6_SRC   16 bytes
//   36 / 48      CTA_IP_V4_DST     4 bytes       / CTA_IP_V6_DST   16 bytes
//   44 / 68    CTA_TUPLE_PROTO     nest, length 28
//   48 / 72      CTA_PROTO_NUM       u8  + 3 bytes of zeroes
//   56 / 80      CTA_PROTO_SRC_PORT  u16 + 2 bytes of zeroes, network byte order
//   64 / 88      CTA_PROTO_DST_PORT  u16 + 2 bytes of zeroes, network byte order
//
// The three protocol attributes declare their zeroes as payload: length 8 each.
int ZanConnTrackMgr::fillTupleInfo(nlmsghdr* msg, ctTuple* tuple) {
  constexpr std::size_t kProtoPayload = 4;
  nlattr* nestOrig = openNest(msg, CTA_TUPLE_ORIG | NLA_F_NESTED);
  if (nestOrig == nullptr) {
    ZAN_LOG(kModule, kLogError, "nestOrig is nullptr");
    return 0;
  }
  nlattr* nestIp = openNest(msg, CTA_TUPLE_IP | NLA_F_NESTED);
  if (nestIp == nullptr) {
    ZAN_LOG(kModule, kLogError, "nestIp is nullptr");
    return 0;
  }
  if (tuple->l3protonum == AF_INET6) {
    appendAttribute(msg, CTA_IP_V6_SRC, sizeof(in6_addr), tuple->src, sizeof(in6_addr));
    appendAttribute(msg, CTA_IP_V6_DST, sizeof(in6_addr), tuple->dst, sizeof(in6_addr));
  } else if (tuple->l3protonum == AF_INET) {
    appendAttribute(msg, CTA_IP_V4_SRC, sizeof(in_addr), tuple->src, sizeof(in_addr));
    appendAttribute(msg, CTA_IP_V4_DST, sizeof(in_addr), tuple->dst, sizeof(in_addr));
  }
  closeNest(msg, nestIp);

  nlattr* nestProto = openNest(msg, CTA_TUPLE_PROTO | NLA_F_NESTED);
  if (nestProto == nullptr) {
    ZAN_LOG(kModule, kLogError, "nestProto is nullptr");
    return 0;
  }
  appendAttribute(msg, CTA_PROTO_NUM, kProtoPayload, &tuple->protonum, sizeof(tuple->protonum));
  if (tuple->protonum == IPPROTO_UDP || tuple->protonum == IPPROTO_TCP) {
    appendAttribute(msg, CTA_PROTO_SRC_PORT, kProtoPayload, &tuple->srcPrt, sizeof(tuple->srcPrt));
    appendAttribute(msg, CTA_PROTO_DST_PORT, kProtoPayload, &tuple->dstPrt, sizeof(tuple->dstPrt));
  }
  closeNest(msg, nestProto);
  closeNest(msg, nestOrig);
  return 1;
}
