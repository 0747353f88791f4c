// Which tuple of a line of the conntrack table concerns an address.
#pragma once

#include <string>

#include "ctmgr/ConntrackLine.h"
#include "ctmgr/ZanConnTrackFilter.h"

namespace ctmgr {

enum LineResult : int {
  kLineMatched = 1,
  kLineNotOfInterest = -10,  ///< family or protocol not handled, or another address
  kLineFailed = -1           ///< the line lacks a "src="
};

/// A hotspot client's addresses.
struct ClientAddresses {
  NormalAddress ipv4;
  NormalAddress ipv6;

  [[nodiscard]] bool hold(const AddressToken& source, std::uint16_t af) const {
    return ipv4.equals(source, af) || ipv6.equals(source, af);
  }
};

/// The tuple of |line| in which |client| is the source. Fills |out| on kLineMatched only.
LineResult matchClient(const char* line, const ClientAddresses& client, ZanConnTrackFilter_s& out);

/// The reply tuple of an IPv4 line whose original source is |client| and whose reply destination
/// reads exactly |lostAddress|. Fills |out| on kLineMatched only.
LineResult matchLoss(const char* line, const NormalAddress& client, const std::string& lostAddress,
                     ZanConnTrackFilter_s& out);

}  // namespace ctmgr
