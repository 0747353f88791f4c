#include "ctmgr/ConntrackMatch.h"

#include <arpa/inet.h>

#include <cstring>

#include "ctmgr/Log.h"
#include "ctmgr/ZanConnTrackUtils.h"

namespace ctmgr {

namespace {

constexpr int kModule = ZAN_LOG_MODULE_CT_NET;

/// What the tokens that begin a line say.
struct Kind {
  std::uint16_t af;
  std::int32_t protocol;
};

/// False when the family or the protocol of |line| is not handled here.
bool readKind(const char* line, bool ipv6Handled, Kind& kind) {
  LineStart start;
  readLineStart(line, start);
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackParser::parseNfConnTrackLine:af = %s temp = %s protocol = %s type = %s\n",
          start.layer3Name, start.layer3Number, start.layer4Name, start.layer4Number);

  if (std::strcmp(start.layer3Name, "ipv4") == 0) {
    kind.af = AF_INET;
  } else if (ipv6Handled && std::strcmp(start.layer3Name, "ipv6") == 0) {
    kind.af = AF_INET6;
  } else {
    return false;
  }
  if (std::strcmp(start.layer4Name, "udp") == 0) {
    kind.protocol = IPPROTO_UDP;
  } else if (std::strcmp(start.layer4Name, "tcp") == 0) {
    kind.protocol = IPPROTO_TCP;
  } else {
    return false;
  }
  return true;
}

/// The reply tuple behind |original|, the text of the original one to the end of the line, or null;
/// a log line says which.
const char* findReplyTuple(const char* original) {
  const char* reply = findNextTuple(original);
  if (reply == nullptr) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in strAddrPort");
    return nullptr;
  }
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackParser::parseNfConnTrackLine: Reverse entry, Now Parsing: %s", reply);
  return reply;
}

/// The source of |tuple|, of which a log line shows the normal text if it is IPv6.
AddressToken readNormalSource(const char* tuple, std::uint16_t af) {
  const AddressToken source = readSource(tuple, af);
  if (af != AF_INET6) return source;
  char text[kAddressTextSize];
  if (source.normal) {
    text[source.text.copy(text, sizeof(text) - 1)] = '\0';
    ZanConnTrackUtils::logExpanded(text);
  } else {
    inet_ntop(AF_INET6, source.address, text, sizeof(text));
    ZanConnTrackUtils::getIpV6Address(text);
  }
  return source;
}

/// The destination of the reply direction. Ports that it lacks are those of the original direction.
Destination readReplyDestination(const AddressToken& original, const AddressToken& reply,
                                 std::uint16_t af) {
  Destination destination;
  readDestination(original, af, destination);
  destination.address = {};
  readDestination(reply, af, destination);
  return destination;
}

/// What the IPv6 line shows of an address: where the field is, not what it holds.
unsigned long long fieldAddress(const std::uint8_t (&address)[16]) {
  return reinterpret_cast<std::uintptr_t>(&address);
}

void fillRecord(const Kind& kind, const AddressToken& source, const Destination& destination,
                ZanConnTrackFilter_s& record) {
  record = {};  // padding included
  record.af = kind.af;
  record.sport = destination.sport;
  record.dport = destination.dport;
  std::memcpy(record.src, source.address, sizeof(record.src));
  std::memcpy(record.dest, destination.address.address, sizeof(record.dest));
  record.protocol = kind.protocol;
  if (record.af == AF_INET) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackLine: AF=%hu, protocol=%d, src=%X, sport=%hu, "
            "dest=%X, dport=%hu",
            record.af, record.protocol, addressWord(record.src, 0), record.sport,
            addressWord(record.dest, 0), record.dport);
  } else {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackLine: AF=%hu, protocol=%d, V6src = %llX, "
            "sport=%hX, V6dest =%llX, dport=%hX  ",
            record.af, record.protocol, fieldAddress(record.src), record.sport,
            fieldAddress(record.dest), record.dport);
  }
}

LineResult logNoMatch() {
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::parseNfConnTrackLine: No Match found");
  return kLineNotOfInterest;
}

}  // namespace

LineResult matchClient(const char* line, const ClientAddresses& client, ZanConnTrackFilter_s& out) {
  const char* original = findTuple(line);
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::parseNfConnTrackLine: Now Parsing: %s", line);
  if (original == nullptr) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in socketLine");
    return kLineFailed;
  }
  Kind kind{};
  if (!readKind(line, true, kind)) return kLineNotOfInterest;

  const AddressToken source = readNormalSource(original, kind.af);
  if (client.hold(source, kind.af)) {
    Destination destination;
    readDestination(source, kind.af, destination);
    fillRecord(kind, source, destination, out);
  } else {
    const char* reply = findReplyTuple(original);
    if (reply == nullptr) return kLineFailed;
    const AddressToken replySource = readNormalSource(reply, kind.af);
    if (!client.hold(replySource, kind.af)) return logNoMatch();
    fillRecord(kind, replySource, readReplyDestination(source, replySource, kind.af), out);
  }
  return kLineMatched;
}

LineResult matchLoss(const char* line, const NormalAddress& client, const std::string& lostAddress,
                     ZanConnTrackFilter_s& out) {
  const char* original = findTuple(line);
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::parseNfConnTrackLine: Now Parsing: %s", line);
  if (original == nullptr) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in "
            "connTrackLine");
    return kLineFailed;
  }
  Kind kind{};
  if (!readKind(line, false, kind)) return kLineNotOfInterest;

  const AddressToken source = readNormalSource(original, kind.af);
  if (!client.equals(source, kind.af)) return kLineNotOfInterest;

  const char* reply = findReplyTuple(original);
  if (reply == nullptr) return kLineFailed;
  const AddressToken replySource = readNormalSource(reply, kind.af);
  const Destination destination = readReplyDestination(source, replySource, kind.af);
  if (destination.address.text != lostAddress) return logNoMatch();
  fillRecord(kind, replySource, destination, out);
  return kLineMatched;
}

}  // namespace ctmgr
