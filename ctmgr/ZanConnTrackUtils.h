// What the manager, the trackers and the parser share: the conntrack table's descriptor, the
// registry of conntrack event listeners and the expansion of IPv6 address texts.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <list>

#include "host/Zan.h"
#include "host/ZanNetlinkSocket.h"

/// Size of an address or MAC text with its NUL, in bytes.
inline constexpr std::size_t kAddressTextSize = INET6_ADDRSTRLEN;

/// Path of the kernel's conntrack table in text form.
inline constexpr char kConntrackTablePath[] = "/proc/net/nf_conntrack";

/// One per manager, embedded in it.
///
/// The registry serves one shared socket for conntrack events. This build keeps such events
/// switched off: regNlSockEvents() refuses, so the socket never comes into being.
///
/// Thread: event thread, getIpV6Address() excepted.
class ZanConnTrackUtils {
 public:
  explicit ZanConnTrackUtils(Zan& host);
  ~ZanConnTrackUtils();
  ZanConnTrackUtils(const ZanConnTrackUtils&) = delete;
  ZanConnTrackUtils& operator=(const ZanConnTrackUtils&) = delete;

  /// Opens the conntrack table read-only into connTrackFd. Returns 0, or -1 when it cannot be
  /// opened; connTrackFd is -1 then.
  int setPrivilegeParams();

  /// The conntrack table's descriptor, which stays this object's; -1 when it is not open.
  [[nodiscard]] int getPrivilegeParams();

  /// Refuses with -1: conntrack events are switched off in this build.
  int regNlSockEvents(NlMsgCallback cb, void* data);

  /// Removes the first listener with this pair and, when none is left, the shared socket. Returns
  /// -1 when no socket is up, otherwise 0, also for an unknown pair.
  int deRegNlSockEvents(NlMsgCallback cb, void* data);

  /// Whether a listener with exactly this pair is registered.
  [[nodiscard]] bool checkIfConnObjectPresent(NlMsgCallback cb, void* data);

  /// Ready handler of the shared socket; |data| is the ZanConnTrackUtils.
  static void netLinkEventHandler(int fd, void* data);

  /// Hands one message to every listener in registration order; |data| is the ZanConnTrackUtils.
  /// A listener may deregister itself from inside its callback.
  static void HandleNlMsg(void* data, nlmsghdr* msg, unsigned int len);

  /// Rewrites the IPv6 address text in |addr|, a buffer of at least kAddressTextSize bytes, into
  /// eight groups of four lower-case hexadecimal digits; leaves any other text alone. Any thread.
  static void getIpV6Address(char* addr);

  /// The log line of getIpV6Address(), for |addr| that is expanded already. Any thread.
  static void logExpanded(const char* addr);

 protected:
  struct NlSockListener {
    NlMsgCallback callback;
    void* data;  ///< the listener's own, borrowed
  };

  ZanDsm& dsm;
  Zan& host;
  int connTrackFd = -1;
  std::list<NlSockListener> listeners;
  bool nlSockRegistered = false;  ///< nlSocket exists and the event loop watches it
  ZanNetlinkSocket* nlSocket = nullptr;
  ZanCom& com;
};
