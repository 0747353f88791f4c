#include "ctmgr/ZanConnTrackParser.h"

#include <arpa/inet.h>
#include <stdio_ext.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ctmgr/AddressText.h"
#include "ctmgr/ConntrackText.h"
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

/// Reads the family and the protocol of |line| into |record|; false when one of them is not
/// handled here.
bool readKind(const char* line, bool ipv6Handled, ZanConnTrackFilter_s& record) {
  LineStart start{};
  readLineStart(line, start);
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

/// The reply tuple behind |original|, the text of the original one to the end of the line, or null;
/// a log line says which.
const char* findReplyTuple(const char* original) {
  const char* reply = std::strstr(original + kTupleStartLength, kTupleStart);
  if (reply == nullptr) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackLine:substring src is not found in strAddrPort");
    return nullptr;
  }
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackParser::parseNfConnTrackLine: Reverse entry, Now Parsing: %s", reply);
  return reply;
}

/// inet_pton(3) into |address|, which is zero where |text| is no address. Returns whether |text| is
/// in the one form in which addresses compare as plain strings, as all that the kernel prints is.
bool readAddress(std::uint16_t af, const char* text, std::uint8_t (&address)[16]) {
  if (af == AF_INET ? readDottedAddress(text, address) : readExpandedAddress(text, address)) {
    return true;
  }
  std::memset(address, 0, sizeof(address));
  inet_pton(af, text, address);
  return false;
}

/// The source of a direction.
struct Source {
  const char* end = nullptr;      ///< where it ends in the line; null if it is lacking
  std::uint8_t address[16] = {};  ///< network byte order
  AddressField text = {};         ///< as addresses compare
};

/// The source of |tuple|. What is no address of family |af| becomes the family's all-zero address.
Source readSourceOf(const char* tuple, std::uint16_t af) {
  Source source;
  source.end = readSource(tuple, source.text);
  if (!readAddress(af, source.text, source.address)) {
    inet_ntop(af, source.address, source.text, sizeof(source.text));
  }
  if (af == AF_INET6) ZanConnTrackUtils::getIpV6Address(source.text);
  return source;
}

/// The destination of the reply direction. Ports that it lacks are those of the original direction.
DestinationText readReplyDestination(const Source& original, const Source& reply) {
  DestinationText destination{};
  readDestination(original.end, destination);
  std::memset(destination.dst, 0, sizeof(destination.dst));
  readDestination(reply.end, destination);
  return destination;
}

/// What the IPv6 line shows of an address: where the field is, not what it holds.
unsigned long long fieldAddress(const std::uint8_t (&address)[16]) {
  return reinterpret_cast<std::uintptr_t>(&address);
}

/// Completes |record|, whose family and protocol are set.
void fillRecord(const Source& source, const DestinationText& destination,
                ZanConnTrackFilter_s& record) {
  record.sport = destination.sport;
  record.dport = destination.dport;
  std::memcpy(record.src, source.address, sizeof(record.src));
  readAddress(record.af, destination.dst, record.dest);
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
  // An empty text occurs in every line.
  const bool everyLine = control.ipv4Address.empty() || control.ipv6Address.empty();
  return scanTable(fd, [&](const char* line) -> int {
    if (!everyLine && std::strstr(line, control.ipv4Address.c_str()) == nullptr &&
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
  if (!readKind(line, true, record)) return kNotOfInterest;

  const auto isClient = [&](const Source& source) {
    return control.ipv4Address == source.text || control.ipv6Address == source.text;
  };
  const Source source = readSourceOf(original, record.af);
  if (isClient(source)) {
    DestinationText destination{};
    readDestination(source.end, destination);
    fillRecord(source, destination, record);
  } else {
    const char* reply = findReplyTuple(original);
    if (reply == nullptr) return kFailed;
    const Source replySource = readSourceOf(reply, record.af);
    if (!isClient(replySource)) return logNoMatch();
    fillRecord(replySource, readReplyDestination(source, replySource), record);
  }
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
  if (!readKind(line.c_str(), false, record)) return kNotOfInterest;

  const Source source = readSourceOf(original, record.af);
  if (clientAddress != source.text) return kNotOfInterest;

  const char* reply = findReplyTuple(original);
  if (reply == nullptr) return kFailed;
  const Source replySource = readSourceOf(reply, record.af);
  const DestinationText destination = readReplyDestination(source, replySource);
  if (lostAddress != destination.dst) return logNoMatch();
  fillRecord(replySource, destination, record);
  out = record;
  return kMatched;
}
