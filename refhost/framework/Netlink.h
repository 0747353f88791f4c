// What the reference host's users of netlink(7) share, beside libmnl.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <set>
#include <string>

#include "host/ZanNetlinkSocket.h"

namespace framework {

/// Asks on |fd| for everything that |type|, RTM_GETLINK say, lists; the messages of the answer
/// carry |sequence|. False, with errno set, if that fails.
[[nodiscard]] bool requestList(int fd, std::uint16_t type, std::uint32_t sequence);

/// Receives on |socket| the answer to what was sent there, to its end; |callback| gets every
/// message of it, the end too, and notifications that come meanwhile. False, with errno set, when
/// the kernel refuses, or has dropped something.
[[nodiscard]] bool receiveAnswer(ZanNetlinkSocket& socket, NlMsgCallback callback, void* cbData);

/// Both: asks for a list, and receives it.
[[nodiscard]] bool receiveList(ZanNetlinkSocket& socket, std::uint16_t type, NlMsgCallback callback,
                               void* cbData);

/// Has every socket of the process that hears of neighbours ask for those with one of these MAC
/// addresses, texts in lower case, once more. They are handed on as changes are. Event thread.
void askForNeighbours(const std::set<std::string>& macs);

/// The last attribute |type| of |msg|, behind a family header of |headerLength| bytes; or null.
[[nodiscard]] const nlattr* findAttribute(const nlmsghdr& msg, unsigned int headerLength,
                                          std::uint16_t type);

/// The same inside of |nest|.
[[nodiscard]] const nlattr* findNested(const nlattr& nest, std::uint16_t type);

/// The MAC address that |attribute|, which may be null, holds: text in lower case, or empty.
[[nodiscard]] std::string macText(const nlattr* attribute);

}  // namespace framework
