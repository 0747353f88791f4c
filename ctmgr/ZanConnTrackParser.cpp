#include "ctmgr/ZanConnTrackParser.h"

#include <stdio_ext.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "ctmgr/ConntrackMatch.h"
#include "ctmgr/Log.h"

#ifdef __BIONIC__
#include <android/fdsan.h>
#endif

namespace {

constexpr int kModule = ZAN_LOG_MODULE_CT_NET;

void logAlreadyBound() {
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::Privileges already set");
}

void logScan(const void* stream) {
  ZAN_LOG(kModule, kLogTrace, "ZanConnTrackParser::parseNfConnTrackFile: %p", stream);
}

/// Whether one of the addresses of |control| occurs in |line|. The one of the line's own family,
/// which is the likelier, is looked for first.
bool mentions(const char* line, const ZanConnTrackFileParseControlType& control) {
  const char* first = control.ipv4Address.c_str();
  const char* second = control.ipv6Address.c_str();
  const bool ipv6 = line[0] == 'i' && line[1] == 'p' && line[2] == 'v' && line[3] == '6';
  if (ipv6) std::swap(first, second);
  return std::strstr(line, first) != nullptr || std::strstr(line, second) != nullptr;
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
int scanText(const ctmgr::TableText& text, LineHandler handleLine) {
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
  const ctmgr::ReadingTurn turn(turns, ctmgr::ReadingTurns::Asker::kEvent);
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
bool ZanConnTrackParser::readText(ctmgr::TableText& text) {
  std::array<char, kLineMax + 1> line;
  for (std::size_t bytes = 0; bytes <= ctmgr::kMostTextBytes; bytes += text.back().size()) {
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
int ZanConnTrackParser::readTable(ctmgr::TableQuestion& question,
                                  std::shared_ptr<const ctmgr::TableText>& text,
                                  LineHandler handleLine) {
  const auto began = ctmgr::TableQuestion::Clock::now();
  rewindTable();
  if (!question.askedAgain && turns.waiting() == 0) return scanStream(handleLine);
  const auto read = std::make_shared<ctmgr::TableText>();
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
int ZanConnTrackParser::scanTable(int fd, ctmgr::TableQuestion& question, LineHandler handleLine) {
  if (question.text != nullptr) {
    logAlreadyBound();
    logScan(question.stream);
    return scanText(*question.text, handleLine);
  }
  std::shared_ptr<const ctmgr::TableText> text;
  {
    const ctmgr::ReadingTurn turn(turns, question.asker);
    if (latestBegan > question.asked) text = latestText.lock();
    const bool isCleanUp = question.asker == ctmgr::ReadingTurns::Asker::kCleanUp;
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
  const ctmgr::ReadingTurn turn(turns, ctmgr::ReadingTurns::Asker::kEvent);
  cleanUpsTurnedAway = true;
}

int ZanConnTrackParser::parseNfConnTrackFile(const ZanConnTrackFileParseControlType& control,
                                             std::list<ZanConnTrackFilter_s>& v4Out,
                                             std::list<ZanConnTrackFilter_s>& v6Out, int fd) {
  ctmgr::TableQuestion question(ctmgr::ReadingTurns::Asker::kEvent);
  return parseNfConnTrackFile(control, v4Out, v6Out, fd, question);
}

int ZanConnTrackParser::parseNfConnTrackFile(const ZanConnTrackFileParseControlType& control,
                                             std::list<ZanConnTrackFilter_s>& v4Out,
                                             std::list<ZanConnTrackFilter_s>& v6Out, int fd,
                                             ctmgr::TableQuestion& question) {
  const ctmgr::ClientAddresses client{ctmgr::NormalAddress(control.ipv4Address),
                                      ctmgr::NormalAddress(control.ipv6Address)};
  // An empty text occurs in every line.
  const bool everyLine = control.ipv4Address.empty() || control.ipv6Address.empty();
  return scanTable(fd, question, [&](const char* line) -> int {
    if (!everyLine && !mentions(line, control)) return kNotOfInterest;
    ZanConnTrackFilter_s record;
    const int result = ctmgr::matchClient(line, client, record);
    if (result == kMatched) (record.af == AF_INET ? v4Out : v6Out).push_back(record);
    return result;
  });
}

int ZanConnTrackParser::parseNfConnTrackFile(std::vector<std::string>& clientAddresses,
                                             std::vector<std::string>& lostAddresses,
                                             std::list<ZanConnTrackFilter_s>& out, int fd) {
  ctmgr::TableQuestion question(ctmgr::ReadingTurns::Asker::kEvent);
  return scanTable(fd, question, [&](const char* line) -> int {
    const auto client = std::find_if(
        clientAddresses.begin(), clientAddresses.end(),
        [&](const std::string& text) { return std::strstr(line, text.c_str()) != nullptr; });
    if (client == clientAddresses.end()) return kNotOfInterest;
    const ctmgr::NormalAddress address(*client);

    for (const std::string& lost : lostAddresses) {
      ZanConnTrackFilter_s record{};
      const int result = ctmgr::matchLoss(line, address, lost, record);
      if (result == kNotOfInterest) continue;
      if (result != kMatched) return result;
      out.push_back(record);
    }
    return kNotOfInterest;
  });
}

int ZanConnTrackParser::parseNfConnTrackLine(const ZanConnTrackLineParseControlType& control,
                                             ZanConnTrackFilter_s& out) {
  const ctmgr::ClientAddresses client{ctmgr::NormalAddress(control.ipv4Address),
                                      ctmgr::NormalAddress(control.ipv6Address)};
  return ctmgr::matchClient(control.line.c_str(), client, out);
}

int ZanConnTrackParser::parseNfConnTrackLine(std::string line, std::string clientAddress,
                                             std::string lostAddress, ZanConnTrackFilter_s& out) {
  return ctmgr::matchLoss(line.c_str(), ctmgr::NormalAddress(clientAddress), lostAddress, out);
}
