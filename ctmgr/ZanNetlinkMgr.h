// The neighbour table: which addresses a hotspot client has, by its MAC address.
#pragma once

#include <linux/neighbour.h>
#include <sys/socket.h>

#include <map>
#include <string>
#include <vector>

#include "ctmgr/Mutex.h"
#include "ctmgr/ZanConnTrackUtils.h"
#include "host/ZanCom.h"
#include "host/ZanDsm.h"
#include "host/ZanNetlinkSocket.h"

/// One neighbour. An entry holds the latest IPv4 and the latest global IPv6 address that were
/// seen with its MAC address.
struct _ZanNeighInfoType {
  char ipv4Addr[kAddressTextSize];  ///< dotted text, or empty
  char ipv6Addr[kAddressTextSize];  ///< expanded text (ZanConnTrackUtils::getIpV6Address), or empty
  char macAddr[kAddressTextSize];   ///< "%02x:%02x:%02x:%02x:%02x:%02x", the key of the table
};

/// Keeps the table from the kernel's rtnetlink neighbour notifications (rtnetlink(7)), whatever
/// the interface and the neighbour's state. Entries only leave through delNeighInfoEntry().
///
/// Thread: notifications arrive on the event thread; the table may be read and pruned from any.
class ZanNetlinkMgr {
 public:
  /// One decoded notification.
  struct _NetlinkInfo {
    bool isIpv6;  ///< ipv6Addr holds a global address
    char ipv4Addr[kAddressTextSize];
    char ipv6Addr[kAddressTextSize];
    char macAddr[kAddressTextSize];
  };

  /// The raw decoding of one notification.
  struct zanNlNeighInfo {
    ndmsg ndm;
    sockaddr_storage addr;  ///< family 0 without NDA_DST; the address follows the family at once
    sockaddr lladdr;        ///< the link-layer address is in sa_data; family 0
  };

  /// Opens the notification socket and has |com| watch it. All three must outlive the object.
  ZanNetlinkMgr(ZanCom& com, ZanDsm& dsm, ZanConnTrackUtils& utils);

  /// Closes the socket; |com| is not told.
  ~ZanNetlinkMgr();
  ZanNetlinkMgr(const ZanNetlinkMgr&) = delete;
  ZanNetlinkMgr& operator=(const ZanNetlinkMgr&) = delete;

  /// Ready handler of the notification socket; |data| is the ZanNetlinkMgr.
  static void zanNetlinkEvtCallback(int fd, void* data);

  /// Applies one message to the table; |data| is the ZanNetlinkMgr. Reads up to
  /// kNetlinkReceiveSlack bytes behind the message. Aborts on |len| under 16 and on an attribute
  /// whose padding does not fit, which no kernel sends.
  static void HandleNlMsg(void* data, nlmsghdr* msg, unsigned int len);

  /// Fills |out|, which the caller has zeroed, from |msg|; the last attribute of a type counts.
  void nlDecodeRtmNeigh(nlmsghdr* msg, unsigned int len, zanNlNeighInfo* out);

  /// A new or changed neighbour: only the address of the event's family is replaced.
  void handleNewNeighEvent(_NetlinkInfo* info);

  /// A lost neighbour stays in the table: its connections are still to be flushed.
  void handleDelNeighEvent(_NetlinkInfo* info);

  /// The entry of |mac|, or one with three empty texts.
  _ZanNeighInfoType getNeighInfo(std::string mac);

  /// Appends every entry's IPv4 text to |out|, in MAC order, empty ones too.
  void getNeighipv4Addresses(std::vector<std::string>& out);

  void delNeighInfoEntry(std::string mac);

  /// ZanConnTrackUtils::getIpV6Address.
  void getExpandedIpV6Address(char* addr);

 protected:
  void updateTable(const _NetlinkInfo& info);
  [[nodiscard]] bool isKnown(const _NetlinkInfo& info);

  ZanNetlinkSocket* nlSocket;
  ZanCom& com;
  ZanConnTrackUtils& connTrackUtils;
  std::map<std::string, _ZanNeighInfoType> neighInfoMap ZAN_GUARDED_BY(tableMutex);
  ctmgr::Mutex tableMutex;  ///< never held over a call of the host
};
