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

void logAlreadyBound() {
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::Privileges already set");
}

void logScan(const void* stream) {
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::parseNfConnTrackFile: %p", stream);
}

/// Whether a scan goes on behind a line with |result|; a log line tells when it does not.
bool goesOn(int result) {
  if (result == ZanConnTrackParser::kMatched || result == ZanConnTrackParser::kNotOfInterest) {
    return true;
  }
  ZAN_LOG(kModule, kLogTrace,
          "ZanConnTrackParser::parseNfConnTrackFile: Failed to parse a line error %d", result);
  return false;
}

/// Calls |handleLine| with every piece of |text|, until a result says that the scan is over.
template <typename LineHandler>
int scanText(const TableText& text, LineHandler handleLine) {
  for (const std::string& piece : text) {
    const int result = handleLine(piece.c_str());
    if (!goesOn(result)) return result;
  }
  return ZanConnTrackParser::kMatched;
}

}  // namespace

ZanConnTrackParser::ZanConnTrackParser(ZanConnTrackUtils& connTrackUtils) : utils(connTrackUtils) {
  ZAN_LOG_ENTRY(kModule, "ZanConnTrackParser::ZanConnTrackParser(ZanConnTrackUtils &)", 39);
}

ZanConnTrackParser::~ZanConnTrackParser() {
  ZAN_LOG_ENTRY(kModule, "ZanConnTrackParser::~ZanConnTrackParser()", 55);
  // Purge first: at exit stdio would otherwise lseek a descriptor number that may have been reused.
  if (stream != nullptr) __fpurge(stream);
  stream = nullptr;
}

int ZanConnTrackParser::setPrivilegeParams(int fd) {
  const ReadingTurn turn(turns, ReadingTurns::Asker::kEvent);
  return bindStream(fd);
}

int ZanConnTrackParser::bindStream(int fd) {
  if (stream != nullptr) {
    logAlreadyBound();
    return 0;
  }
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::setPrivilegeParams");
  stream = fdopen(fd, "r");
  if (stream == nullptr) {
    ZAN_LOG(kModule, kLogError, "ZanConnTrackParser::setPrivilegeParams: %d", errno);
    return -1;
  }
#ifdef __BIONIC__
  // fdsan aborts if anyone but the FILE closes its descriptor.
  android_fdsan_exchange_owner_tag(fd, android_fdsan_get_owner_tag(fd), 0);
#endif
  std::setvbuf(stream, streamBuffer.data(), _IOFBF, streamBuffer.size());
  return 0;
}

/// The beginning of every scan. False, with a log line, when there is no stream to read from.
bool ZanConnTrackParser::openTable(int fd) {
  if (bindStream(fd) == -1) {
    ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser: Failed to set privilege Parameters");
  }
  if (stream == nullptr) {
    ZAN_LOG(kModule, kLogTrace,
            "ZanConnTrackParser::parseNfConnTrackFile: Failed :File open Error");
    return false;
  }
  logScan(stream);
  return true;
}

/// Makes the next read return the start of the table as it is now.
void ZanConnTrackParser::rewindTable() {
  // A stream may satisfy a seek from bytes that it still holds, and those of a scan that ended
  // early are old: drop them and the offset that the library remembers, so that the seek reaches
  // the kernel.
  __fpurge(stream);
  std::fflush(stream);
  std::clearerr(stream);
  std::fseek(stream, 0, SEEK_SET);
}

/// Appends what is left of the table to |text|; false when it is too long to be kept.
bool ZanConnTrackParser::readText(TableText& text) {
  std::array<char, kLineMax + 1> line;
  for (std::size_t bytes = 0; bytes <= kMostTextBytes; bytes += text.back().size()) {
    if (std::fgets(line.data(), static_cast<int>(line.size()), stream) == nullptr) return true;
    text.emplace_back(line.data());
  }
  return false;
}

/// Calls |handleLine| with what is left of the table, until a result says that the scan is over.
template <typename LineHandler>
int ZanConnTrackParser::scanStream(LineHandler handleLine) {
  std::array<char, kLineMax + 1> line;
  while (std::fgets(line.data(), static_cast<int>(line.size()), stream) != nullptr) {
    const int result = handleLine(line.data());
    if (!goesOn(result)) return result;
  }
  return kMatched;
}

/// Reads the table and goes through it; or keeps what it reads in |text|, to be gone through when
/// the turn is over, if others want it.
template <typename LineHandler>
int ZanConnTrackParser::readTable(TableQuestion& question, std::shared_ptr<const TableText>& text,
                                  LineHandler handleLine) {
  const auto began = TableQuestion::Clock::now();
  rewindTable();
  if (!question.askedAgain && turns.waiting() == 0) return scanStream(handleLine);
  const auto read = std::make_shared<TableText>();
  if (!readText(*read)) {
    question.askedAgain = false;  // nor will it be kept the next time
    const int result = scanText(*read, handleLine);
    return result == kMatched ? scanStream(handleLine) : result;
  }
  latestText = text = read;
  latestBegan = began;
  return kMatched;
}

/// Calls |handleLine| with every line of a reading that answers |question|, as above.
template <typename LineHandler>
int ZanConnTrackParser::scanTable(int fd, TableQuestion& question, LineHandler handleLine) {
  if (question.text != nullptr) {
    logAlreadyBound();
    logScan(question.stream);
    return scanText(*question.text, handleLine);
  }
  std::shared_ptr<const TableText> text;
  {
    const ReadingTurn turn(turns, question.asker);
    if (latestBegan > question.asked) text = latestText.lock();
    const bool isCleanUp = question.asker == ReadingTurns::Asker::kCleanUp;
    if (text == nullptr && isCleanUp && cleanUpsTurnedAway) return kTurnedAway;
    if (!openTable(fd)) return kFailed;
    if (text == nullptr) {
      const int result = readTable(question, text, handleLine);
      if (text == nullptr) return result;
    }
    if (question.askedAgain) {
      question.text = text;
      question.stream = stream;
    }
  }
  return scanText(*text, handleLine);
}

void ZanConnTrackParser::turnCleanUpsAway() {
  const ReadingTurn turn(turns, ReadingTurns::Asker::kEvent);
  cleanUpsTurnedAway = true;
}

int ZanConnTrackParser::parseNfConnTrackFile(const ZanConnTrackFileParseControlType& control,
                                             std::list<ZanConnTrackFilter_s>& v4Out,
                                             std::list<ZanConnTrackFilter_s>& v6Out, int fd) {
  TableQuestion question(ReadingTurns::Asker::kEvent);
  return parseNfConnTrackFile(control, v4Out, v6Out, fd, question);
}

int ZanConnTrackParser::parseNfConnTrackFile(const ZanConnTrackFileParseControlType& control,
                                             std::list<ZanConnTrackFilter_s>& v4Out,
                                             std::list<ZanConnTrackFilter_s>& v6Out, int fd,
                                             TableQuestion& question) {
  ZanConnTrackLineParseControlType lineControl{{}, control.ipv4Address, control.ipv6Address};
  // An empty text occurs in every line.
  const bool everyLine = control.ipv4Address.empty() || control.ipv6Address.empty();
  return scanTable(fd, question, [&](const char* line) -> int {
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
  TableQuestion question(ReadingTurns::Asker::kEvent);
  return scanTable(fd, question, [&](const char* line) -> int {
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
