// The record layouts that are a contract: with the framework, which was built separately, and with
// the kernel. Nothing but static_asserts; a build that breaks one of them stops here.
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "ctmgr/ZanConnTrackFilter.h"
#include "ctmgr/ZanConnTrackMgr.h"
#include "ctmgr/ZanNetlinkMgr.h"
#include "host/Agreement.h"
#include "host/EventDispatcher.h"
#include "host/Zan.h"
#include "host/ZanCommands.h"
#include "host/ZanDsmEvents.h"
#include "host/ZanRix.h"

// Both compilers know the offsets of records that hold standard containers or have private parts.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace {

// What a delete request is made of, which is the same everywhere; the whole is drawn above
// appendTuple().
static_assert(sizeof(nlmsghdr) == 16 && offsetof(nlmsghdr, nlmsg_len) == 0);
static_assert(offsetof(nlmsghdr, nlmsg_type) == 4 && offsetof(nlmsghdr, nlmsg_flags) == 6);
static_assert(offsetof(nlmsghdr, nlmsg_seq) == 8 && offsetof(nlmsghdr, nlmsg_pid) == 12);
static_assert(sizeof(nfgenmsg) == 4 && offsetof(nfgenmsg, nfgen_family) == 0);
static_assert(offsetof(nfgenmsg, version) == 1 && offsetof(nfgenmsg, res_id) == 2);
static_assert(sizeof(nlattr) == 4 && offsetof(nlattr, nla_len) == 0);
static_assert(offsetof(nlattr, nla_type) == 2);

// Tuples.
static_assert(offsetof(ZanConnTrackFilter_s, af) == 0 &&
              offsetof(ZanConnTrackFilter_s, sport) == 2);
static_assert(offsetof(ZanConnTrackFilter_s, dport) == 4 &&
              offsetof(ZanConnTrackFilter_s, src) == 6);
static_assert(offsetof(ZanConnTrackFilter_s, dest) == 22);
static_assert(offsetof(ZanConnTrackFilter_s, protocol) == 40 && sizeof(ZanConnTrackFilter_s) == 44);

using Tuple = ZanConnTrackMgr::ctTuple;
static_assert(offsetof(Tuple, src) == 0 && offsetof(Tuple, dst) == 16);
static_assert(offsetof(Tuple, l3protonum) == 32 && offsetof(Tuple, protonum) == 33);
static_assert(offsetof(Tuple, srcPrt) == 34 && offsetof(Tuple, dstPrt) == 36);
static_assert(sizeof(Tuple) == 38);

// Neighbours.
static_assert(kAddressTextSize == 46);
static_assert(offsetof(_ZanNeighInfoType, ipv4Addr) == 0);
static_assert(offsetof(_ZanNeighInfoType, ipv6Addr) == 46);
static_assert(offsetof(_ZanNeighInfoType, macAddr) == 92 && sizeof(_ZanNeighInfoType) == 138);

using Neighbour = ZanNetlinkMgr::_NetlinkInfo;
static_assert(sizeof(bool) == 1 && offsetof(Neighbour, isIpv6) == 0);
static_assert(offsetof(Neighbour, ipv4Addr) == 1 && offsetof(Neighbour, ipv6Addr) == 47);
static_assert(offsetof(Neighbour, macAddr) == 93 && sizeof(Neighbour) == 139);

using Notification = ZanNetlinkMgr::zanNlNeighInfo;
static_assert(sizeof(ndmsg) == 12 && offsetof(Notification, ndm) == 0);
static_assert(sizeof(sockaddr_storage) == 128 && sizeof(sockaddr) == 16);
static_assert(offsetof(Notification, addr) % alignof(sockaddr_storage) == 0);
static_assert(offsetof(Notification, lladdr) == offsetof(Notification, addr) + 128);

// The command channel.
static_assert(sizeof(ZAN_COMMANDS) == 4);
static_assert(ZAN_CMD_IDLETIMER_ADD_1 == 8 && ZAN_CMD_IDLETIMER_ADD_2 == 9);
static_assert(ZAN_CMD_IDLETIMER_DEL_1 == 10 && ZAN_CMD_IDLETIMER_DEL_2 == 11);

// The framework's enumerations.
static_assert(sizeof(ZanDsmEvent) == 4 && sizeof(ZanApnType) == 4);
static_assert(ZAN_DSM_EVENT_WWAN_STATUS == 2 && ZAN_DSM_EVENT_TETHERING_STATE == 5);
static_assert(ZAN_DSM_EVENT_SAP_CLIENTS == 27 && ZAN_DSM_EVENT_UPSTREAM_IP_LOST == 28);
static_assert(ZAN_WWAN_STATUS_CONNECTED == 1 && ZAN_WWAN_STATUS_DISCONNECTED == 4);
static_assert(ZAN_APN_TYPE_DEFAULT == 0);

// The order of the host object's members.
static_assert(offsetof(Zan, commandChannelFd) < offsetof(Zan, zanCom));
static_assert(offsetof(Zan, zanCom) < offsetof(Zan, zanDsm));
static_assert(offsetof(Zan, zanDsm) < offsetof(Zan, zanRix));

// What holds standard containers is laid out by the compiler's library: these are the target's,
// 32-bit with libc++.
#if defined(_LIBCPP_VERSION) && UINTPTR_MAX == UINT32_MAX
static_assert(sizeof(std::list<ZanApnType>) == 12 && sizeof(std::string) == 12);
static_assert(sizeof(ZanDsmTextList) == 12);

/// Reaches what only the dispatcher and those derived from it may touch.
struct Dispatcher : EventDispatcher<ZanDsmEvent> {
  static constexpr bool hasTheTargetsLayout() {
    return offsetof(Dispatcher, registrations) == 0 && offsetof(Dispatcher, changed) == 12 &&
           offsetof(CallbackRecord, callback) == 0 && offsetof(CallbackRecord, cbData) == 4 &&
           offsetof(CallbackRecord, state) == 8 && sizeof(CallbackRecord) == 12 && kIdle == 0 &&
           kDispatching == 1 && kRemovalRequested == 2;
  }
};
static_assert(Dispatcher::hasTheTargetsLayout() && sizeof(EventDispatcher<ZanDsmEvent>) == 16);

struct Manager : ZanConnTrackMgr {
  static constexpr bool hasTheTargetsLayout() {
    return offsetof(Manager, v4DeleteList) == 0 && offsetof(Manager, v6DeleteList) == 12;
  }
};
static_assert(Manager::hasTheTargetsLayout());

static_assert(offsetof(ZanDsmWwanStatusInfo, status) == 0);
static_assert(offsetof(ZanDsmWwanStatusInfo, ifaceName) == 4);
static_assert(offsetof(ZanDsmWwanStatusInfo, apnList) == 112);

static_assert(offsetof(_ZanDsmWwanInfoType, word0) == 0 &&
              offsetof(_ZanDsmWwanInfoType, word1) == 4);
static_assert(offsetof(_ZanDsmWwanInfoType, status) == 8 &&
              offsetof(_ZanDsmWwanInfoType, word3) == 12);
static_assert(kWwanSecondTextOffset == 62);
static_assert(offsetof(_ZanDsmWwanInfoType, apnList) == 16);
static_assert(offsetof(_ZanDsmWwanInfoType, text) == 28 &&
              sizeof(_ZanDsmWwanInfoType::text) == 131);
static_assert(sizeof(_ZanDsmWwanInfoType) == 160);

static_assert(offsetof(HalFilterInfo, ifaceName) == 0 && offsetof(HalFilterInfo, wwanStatus) == 12);
static_assert(offsetof(HalFilterInfo, wwanText1) == 16 && offsetof(HalFilterInfo, wwanText2) == 28);
static_assert(offsetof(HalFilterInfo, icmpFilterDisabled) == 40 && sizeof(HalFilterInfo) == 44);

static_assert(offsetof(Notification, addr) == 12 && sizeof(Notification) == 156);
#elif defined(__arm__)
#error \
    "the target's C++ library is libc++: with another one the host's records are laid out differently"
#endif

}  // namespace
