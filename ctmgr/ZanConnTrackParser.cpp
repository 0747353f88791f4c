#include "ctmgr/ZanConnTrackParser.h"

#include <arpa/inet.h>
#include <stdio_ext.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ctmgr/Log.h"

#ifdef __BIONIC__
#include <android/fdsan.h>
#endif

namespace {

constexpr int kModule = ZAN_LOG_MODULE_CT_NET;

/// Longest piece of a line that is read at once, in characters; the rest arrives as a line of
/// its own.
constexpr std::size_t kLineMax = 512;

constexpr char kTupleStart[] = "src=";
constexpr std::size_t kTupleStartLength = sizeof(kTupleStart) - 1;

/// The tokens that begin a line. A token that is longer than its buffer is cut there, and what is
/// left of it is read as the next one: the kernel's own tokens all fit.
struct LineStart {
  char layer3Name[16];
  char layer3Number[16];
  char layer4Name[16];
  char layer4Number[4];
  char rest[16];
};

/// One direction of an entry. A field that the text lacks keeps what it held.
struct DirectionText {
  char src[48];
  char dst[48];
  std::uint16_t sport;
  std::uint16_t dport;
  char rest[16];
};

using NormalisedText = std::array<char, kAddressTextSize>;

/// Reads the family and the protocol of |line| into |record|; false when one of them is not
/// handled here.
bool readLineStart(const char* line, bool ipv6Handled, ZanConnTrackFilter_s& record) {
  LineStart start{};
  std::sscanf(line, "%15s %15s %15s %3s %1s", start.layer3Name, start.layer3Number,
              start.layer4Name, start.layer4Number, start.rest);
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackParser::parseNfConnTrackLine:af = %s temp = %s protocol = %s type = %s\n",
          start.layer3Name, start.layer3Number, start.layer4Name, start.layer4Number);

  if (std::strcmp(start.layer3Name, "ipv4") == 0) {
    record.af = AF_INET;
  } else if (ipv6Handled && std::strcmp(start.layer3Name, "ipv6") == 0) {
    record.af = AF_INET6;
  } else {
    return false;
  }
  if (std::strcmp(start.layer4Name, "udp") == 0) {
    record.protocol = IPPROTO_UDP;
  } else if (std::strcmp(start.layer4Name, "tcp") == 0) {
    record.protocol = IPPROTO_TCP;
  } else {
    return false;
  }
  return true;
}

void readDirection(const char* tuple, DirectionText& direction) {
  std::sscanf(tuple, "src=%47s dst=%47s sport=%hu dport=%hu %1s", direction.src, direction.dst,
              &direction.sport, &direction.dport, direction.rest);
}

/// Reads the reply direction over the original one; its addresses never mix with the others.
void readReplyDirection(const char* tuple, DirectionText& direction) {
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackParser::parseNfConnTrackLine: Reverse entry, Now Parsing: %s", tuple);
  std::memset(direction.src, 0, sizeof(direction.src));
  std::memset(direction.dst, 0, sizeof(direction.dst));
  std::memset(direction.rest, 0, sizeof(direction.rest));
  readDirection(tuple, direction);
}

/// The reply tuple behind |original|, the text of the original one to the end of the line; null,
/// with a log line, when there is none.
const char* findReplyTuple(const char* original) {
  const char* reply = std::strstr(original + kTupleStartLength, kTupleStart);
  if (reply == nullptr) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in strAddrPort");
  }
  return reply;
}

/// |text| in the one form in which addresses compare as plain strings: dotted, or expanded. What
/// is no address of family |af| becomes the family's all-zero address.
NormalisedText normalise(const char* text, std::uint16_t af) {
  std::array<unsigned char, sizeof(in6_addr)> address{};
  NormalisedText result{};
  inet_pton(af, text, address.data());
  inet_ntop(af, address.data(), result.data(), result.size());
  if (af == AF_INET6) ZanConnTrackUtils::getIpV6Address(result.data());
  return result;
}

/// What the IPv6 line shows of an address: where the field is, not what it holds.
unsigned long long fieldAddress(const std::uint8_t (&address)[16]) {
  return reinterpret_cast<std::uintptr_t>(&address);
}

/// Completes |record|, whose family and protocol are set, from |direction|.
void fillRecord(const DirectionText& direction, ZanConnTrackFilter_s& record) {
  record.sport = direction.sport;
  record.dport = direction.dport;
  inet_pton(record.af, direction.src, record.src);
  inet_pton(record.af, direction.dst, record.dest);
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

int logNoMatch() {
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::parseNfConnTrackLine: No Match found");
  return ZanConnTrackParser::kNotOfInterest;
}

}  // namespace

ZanConnTrackParser::ZanConnTrackParser(ZanConnTrackUtils& connTrackUtils) : utils(connTrackUtils) {
  ZAN_LOG_ENTRY(kModule, "ZanConnTrackParser::ZanConnTrackParser(ZanConnTrackUtils &)", 39);
}

ZanConnTrackParser::~ZanConnTrackParser() {
  ZAN_LOG_ENTRY(kModule, "ZanConnTrackParser::~ZanConnTrackParser()", 55);
  // The stream is left behind, so that the manager's descriptor stays open. Without unread bytes
  // nobody will want to seek on that descriptor at exit, when it may be somebody else's.
  if (stream != nullptr) __fpurge(stream);
  stream = nullptr;
}

int ZanConnTrackParser::setPrivilegeParams(int fd) {
  if (stream != nullptr) {
    ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::Privileges already set");
    return 0;
  }
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::setPrivilegeParams");
  stream = fdopen(fd, "r");
  if (stream == nullptr) {
    ZAN_LOG(kModule, kLogError, "ZanConnTrackParser::setPrivilegeParams: %d", errno);
    return -1;
  }
#ifdef __BIONIC__
  // Android takes a stream for the owner of its descriptor, and a close by anybody else for a
  // fault.
  android_fdsan_exchange_owner_tag(fd, android_fdsan_get_owner_tag(fd), 0);
#endif
  std::setvbuf(stream, streamBuffer.data(), _IOFBF, streamBuffer.size());
  return 0;
}

/// Makes the next read return the start of the table as it is now. False, with a log line, when
/// there is no stream to read from.
bool ZanConnTrackParser::rewindTable(int fd) {
  if (setPrivilegeParams(fd) == -1) {
    ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser: Failed to set privilege Parameters");
  }
  if (stream == nullptr) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackFile: Failed :File open Error");
    return false;
  }
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::parseNfConnTrackFile: %p",
          static_cast<void*>(stream));
  // A stream may satisfy a seek from bytes that it still holds, and those of a scan that ended
  // early are old: drop them and the offset that the library remembers, so that the seek reaches
  // the kernel.
  __fpurge(stream);
  std::fflush(stream);
  std::clearerr(stream);
  std::fseek(stream, 0, SEEK_SET);
  return true;
}

/// Calls |handleLine| with every line, until a result says that the scan is over.
template <typename LineHandler>
int ZanConnTrackParser::scanTable(int fd, LineHandler handleLine) {
  const std::lock_guard<std::mutex> lock(scanMutex);
  if (!rewindTable(fd)) return kFailed;

  std::array<char, kLineMax + 1> line;
  while (std::fgets(line.data(), static_cast<int>(line.size()), stream) != nullptr) {
    const int result = handleLine(line.data());
    if (result == kMatched || result == kNotOfInterest) continue;
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackFile: Failed to parse a line error %d", result);
    return result;
  }
  return kMatched;
}

int ZanConnTrackParser::parseNfConnTrackFile(const ZanConnTrackFileParseControlType& control,
                                             std::list<ZanConnTrackFilter_s>& v4Out,
                                             std::list<ZanConnTrackFilter_s>& v6Out, int fd) {
  ZanConnTrackLineParseControlType lineControl{{}, control.ipv4Address, control.ipv6Address};
  return scanTable(fd, [&](const char* line) -> int {
    if (std::strstr(line, control.ipv4Address.c_str()) == nullptr &&
        std::strstr(line, control.ipv6Address.c_str()) == nullptr) {
      return kNotOfInterest;
    }
    lineControl.line = line;
    ZanConnTrackFilter_s record{};
    const int result = parseNfConnTrackLine(lineControl, record);
    if (result == kMatched) (record.af == AF_INET ? v4Out : v6Out).push_back(record);
    return result;
  });
}

int ZanConnTrackParser::parseNfConnTrackFile(std::vector<std::string>& clientAddresses,
                                             std::vector<std::string>& lostAddresses,
                                             std::list<ZanConnTrackFilter_s>& out, int fd) {
  return scanTable(fd, [&](const char* line) -> int {
    const auto client = std::find_if(
        clientAddresses.begin(), clientAddresses.end(),
        [&](const std::string& text) { return std::strstr(line, text.c_str()) != nullptr; });
    if (client == clientAddresses.end()) return kNotOfInterest;

    for (const std::string& lost : lostAddresses) {
      ZanConnTrackFilter_s record{};
      const int result = parseNfConnTrackLine(line, *client, lost, record);
      if (result == kNotOfInterest) continue;
      if (result != kMatched) return result;
      out.push_back(record);
    }
    return kNotOfInterest;
  });
}

int ZanConnTrackParser::parseNfConnTrackLine(const ZanConnTrackLineParseControlType& control,
                                             ZanConnTrackFilter_s& out) {
  const char* line = control.line.c_str();
  const char* original = std::strstr(line, kTupleStart);
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::parseNfConnTrackLine: Now Parsing: %s", line);
  if (original == nullptr) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in socketLine");
    return kFailed;
  }
  ZanConnTrackFilter_s record{};
  if (!readLineStart(line, true, record)) return kNotOfInterest;

  const auto isClient = [&](const char* source) {
    const NormalisedText text = normalise(source, record.af);
    return control.ipv4Address == text.data() || control.ipv6Address == text.data();
  };
  DirectionText direction{};
  readDirection(original, direction);
  if (!isClient(direction.src)) {
    const char* reply = findReplyTuple(original);
    if (reply == nullptr) return kFailed;
    readReplyDirection(reply, direction);
    if (!isClient(direction.src)) return logNoMatch();
  }
  fillRecord(direction, record);
  out = record;
  return kMatched;
}

int ZanConnTrackParser::parseNfConnTrackLine(std::string line, std::string clientAddress,
                                             std::string lostAddress, ZanConnTrackFilter_s& out) {
  const char* original = std::strstr(line.c_str(), kTupleStart);
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::parseNfConnTrackLine: Now Parsing: %s",
          line.c_str());
  if (original == nullptr) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in "
            "connTrackLine");
    return kFailed;
  }
  ZanConnTrackFilter_s record{};
  if (!readLineStart(line.c_str(), false, record)) return kNotOfInterest;

  DirectionText direction{};
  readDirection(original, direction);
  if (clientAddress != normalise(direction.src, record.af).data()) return kNotOfInterest;

  const char* reply = findReplyTuple(original);
  if (reply == nullptr) return kFailed;
  readReplyDirection(reply, direction);
  if (lostAddress != direction.dst) return logNoMatch();
  fillRecord(direction, record);
  out = record;
  return kMatched;
}
