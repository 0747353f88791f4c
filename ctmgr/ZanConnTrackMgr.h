// The plug-in's one manager, and its entry points.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ctmgr/ConntrackDeleter.h"
#include "ctmgr/Mutex.h"
#include "ctmgr/NetlinkRequest.h"
#include "ctmgr/WorkerGate.h"
#include "ctmgr/ZanConnTrackFilter.h"
#include "ctmgr/ZanConnTrackParser.h"
#include "ctmgr/ZanConnTrackUtils.h"
#include "ctmgr/ZanIfConnTracker.h"
#include "ctmgr/ZanNetlinkMgr.h"
#include "host/Zan.h"
#include "host/ZanNetlinkSocket.h"

/// Pause between the flushes of a departed client, in seconds.
inline constexpr int SAP_CLIENT_RECHECK_DELAY = 5;

/// Turns data-service events into trackers of mobile-data interfaces and into flushes of stale
/// hotspot connections.
///
/// A flush scans the conntrack table and leaves what it found in v4DeleteList and v6DeleteList
/// for a detached worker, which takes a copy and asks the kernel to delete every tuple.
///
/// Threads: the event thread makes every call, but deleteConntrackEntries() and
/// cleanUpRemainingEntries(), which are bodies of detached workers.
class ZanConnTrackMgr {
 public:
  using ctTuple = ctmgr::ConntrackTuple;

  /// |host| must outlive the manager. Construction always succeeds; without the conntrack table
  /// there are no flushes, and with the property persist.vendor.zan.disable.sap.conntrack set to
  /// a non-zero number nothing that flushes is created.
  explicit ZanConnTrackMgr(Zan& host);

  /// Waits for a flush in progress, not for workers that sleep or send: deletions go on to their
  /// end. The netlink socket is left open for the rest of the process's life.
  ~ZanConnTrackMgr();
  ZanConnTrackMgr(const ZanConnTrackMgr&) = delete;
  ZanConnTrackMgr& operator=(const ZanConnTrackMgr&) = delete;

  /// Listener for data-service events; |cbData| is the manager.
  static void dsmEventHandler(ZanDsmEvent event, const void* evtData, void* cbData);

  /// Keeps one tracker for each interface name; for a name that has one already, or none, the
  /// calls change nothing.
  void createIfConTracker(std::string ifaceName);
  void destroyIfConTracker(std::string ifaceName);

  /// Idle-status listener of every tracker; |cbData| is the manager, |eventData| points at one
  /// byte, non-zero for idle. An idle interface gets its listen filters.
  static void idleTimerExpHdlr(const void* eventData, void* cbData, std::string ifaceName);
  void listenFilterTimerExpHdlr(const void* eventData, std::string ifaceName);

  /// The property above as a number.
  int readSapConnTrackProperty();

  /// |sapClientList| is the complete new client list; flushes those who are no longer on it.
  void processSapClientsChanged(std::vector<std::string>& sapClientList);

  /// Flushes each of |clients| at once, and again from a worker.
  void processDisconnectedSapClients(std::vector<std::string>& clients);

  /// One flush of |client|, a MAC address text.
  void processDisconnectedSapClient(std::string client);

  /// Worker: flushes |client| after one and after two delays, then forgets its addresses. Ends
  /// quietly when the manager has gone meanwhile.
  void cleanUpRemainingEntries(std::string client);

  /// Flushes the IPv4 entries of all known neighbours that were translated to |lostIpAddresses|.
  void processUpStreamIpLostEvent(std::vector<std::string>& lostIpAddresses);

  /// Worker: deletes what the two lists hold when it starts; |mgr| is the manager, which may go
  /// once they are copied.
  static void deleteConntrackEntries(void* mgr);

  /// Sends one delete request per record, in list order. Any thread.
  void deleteV4ConntrackEntries(std::list<ZanConnTrackFilter_s>& entries);
  void deleteV6ConntrackEntries(std::list<ZanConnTrackFilter_s>& entries);

  /// Appends the tuple to |msg|, which stands in a zeroed buffer of DELETE_MSG_MAX_LEN bytes.
  /// Returns 1, or 0 when it does not fit.
  int fillTupleInfo(nlmsghdr* msg, ctTuple* tuple);

  /// Makes |msg| a delete request for |family| without a tuple yet, with the next sequence number.
  /// Returns 0.
  int fillNetlinkHeader(nlmsghdr* msg, std::uint8_t family);

 protected:
  void trackConnectedInterfaces();
  void processWwanStatus(const ZanDsmWwanStatusInfo& info);
  [[nodiscard]] bool flushesEnabled() const;
  bool flush(const std::string& client, ctmgr::TableQuestion& question);
  static void flushAgain(std::shared_ptr<ctmgr::WorkerGate> gate, ZanConnTrackMgr* mgr,
                         std::string client);
  void startDeletion(std::list<ZanConnTrackFilter_s> v4, std::list<ZanConnTrackFilter_s> v6);
  static void deleteEntries(ZanConnTrackMgr* mgr, ctmgr::WorkerGate::Pass pass);

  std::list<ZanConnTrackFilter_s> v4DeleteList ZAN_GUARDED_BY(listMutex);
  std::list<ZanConnTrackFilter_s> v6DeleteList ZAN_GUARDED_BY(listMutex);
  Zan& host;
  ZanDsm* zanDsm = nullptr;
  ZanRix* zanRix = nullptr;
  ZanCom* zanCom = nullptr;  ///< set only while hotspot handling is enabled
  ZanConnTrackUtils connTrackUtils;
  ZanNetlinkMgr* netlinkMgr = nullptr;            ///< owned; null without hotspot handling
  ZanConnTrackParser* conntrackParser = nullptr;  ///< owned; null without hotspot handling
  std::vector<std::string> sapClients;
  std::vector<std::string> disconnectedSapClients;
  std::map<std::string, ZanIfConnTracker*> ifTrackers;  ///< owned

  ctmgr::Mutex listMutex;
  ctmgr::Condition listsTaken;
  bool listsWait ZAN_GUARDED_BY(listMutex) = false;  ///< for the worker that was started last
  std::shared_ptr<ctmgr::WorkerGate> workers = std::make_shared<ctmgr::WorkerGate>();
  std::shared_ptr<ctmgr::ConntrackDeleter> deleter = std::make_shared<ctmgr::ConntrackDeleter>();
};

/// The manager between init_ct_mgr() and deinit_ct_mgr(), otherwise null. Event thread only.
extern ZanConnTrackMgr* gConnTrackMgr;

/// Creates the manager. Event thread. Returns 0, or -1 when |host| is null or there is a manager.
extern "C" [[gnu::visibility("default")]] int init_ct_mgr(Zan* host);

/// Destroys the manager. Event thread. Returns 0, or -1 when there is none.
extern "C" [[gnu::visibility("default")]] int deinit_ct_mgr();
