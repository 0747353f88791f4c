#include "lab/ConntrackTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <sstream>
#include <string_view>
#include <tuple>

#include "base/UniqueFd.h"
#include "lab/Error.h"
#include "lab/IpAddress.h"
#include "lab/NetNamespace.h"

namespace lab {
namespace {

constexpr const char* kTableFile = "/proc/thread-self/net/nf_conntrack";

template <typename Number>
Number toNumber(const std::string& text, const std::string& line) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) {
    throw Error("'" + text + "' is not a number in the conntrack line: " + line);
  }
  return number;
}

bool isNumber(const std::string& word) {
  return !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
}

/// Puts a key=value word into its place; each of the four keys occurs once a direction.
void applyPair(const std::string& key, const std::string& value, const std::string& line,
               ConntrackEntry& entry) {
  if (key == "src") {
    ConntrackTuple& tuple = entry.original.source.empty() ? entry.original : entry.reply;
    tuple.source = IpAddress::canonical(value);
    return;
  }
  ConntrackTuple& tuple = entry.reply.source.empty() ? entry.original : entry.reply;
  if (key == "dst") tuple.destination = IpAddress::canonical(value);
  if (key == "sport") tuple.sourcePort = toNumber<std::uint16_t>(value, line);
  if (key == "dport") tuple.destinationPort = toNumber<std::uint16_t>(value, line);
}

// family-name family-number protocol-name protocol-number [timeout] [STATE] src=.. dst=.. ...
ConntrackEntry parseLine(const std::string& line) {
  std::istringstream words(line);
  std::string family;
  std::string familyNumber;
  std::string protocolNumber;
  ConntrackEntry entry;
  entry.line = line;
  words >> family >> familyNumber >> entry.protocol >> protocolNumber;
  if (family != "ipv4" && family != "ipv6") throw Error("strange conntrack line: " + line);
  entry.family = family == "ipv4" ? 4 : 6;
  entry.protocolNumber = toNumber<int>(protocolNumber, line);

  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    if (equals != std::string::npos) {
      applyPair(word.substr(0, equals), word.substr(equals + 1), line, entry);
    } else if (entry.original.source.empty() && isNumber(word)) {
      entry.timeoutSeconds = toNumber<std::int64_t>(word, line);
    } else if (entry.original.source.empty()) {
      entry.state = word;
    }
  }
  if (entry.reply.destination.empty()) throw Error("incomplete conntrack line: " + line);
  return entry;
}

std::string readTableFile() {
  const base::UniqueFd file(::open(kTableFile, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    throw systemError(std::string("cannot open ") + kTableFile, errno,
                      "is nf_conntrack loaded and built with its proc file?");
  }
  std::string text;
  std::array<char, 65536> buffer;
  while (true) {
    const ssize_t got = ::read(file.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw systemError(std::string("cannot read ") + kTableFile);
    if (got == 0) return text;
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
}

std::string endpoint(const std::string& address, std::uint16_t port) {
  const bool ipv6 = address.find(':') != std::string::npos;
  return (ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

}  // namespace

bool ConntrackEntry::concerns(const std::string& address) const {
  return original.source == address || reply.source == address;
}

bool ConntrackEntry::sameConnection(const ConntrackEntry& other) const {
  return std::tie(family, protocolNumber, original, reply) ==
         std::tie(other.family, other.protocolNumber, other.original, other.reply);
}

std::string ConntrackEntry::text() const {
  return "IPv" + std::to_string(family) + " " + protocol + " " +
         endpoint(original.source, original.sourcePort) + " -> " +
         endpoint(original.destination, original.destinationPort);
}

std::vector<ConntrackEntry> ConntrackTable::read(const NetNamespace& where) {
  return parse(where.run(readTableFile));
}

std::vector<ConntrackEntry> ConntrackTable::parse(const std::string& text) {
  std::vector<ConntrackEntry> entries;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) entries.push_back(parseLine(line));
  return entries;
}

std::vector<ConntrackEntry> ConntrackTable::concerning(const std::vector<ConntrackEntry>& entries,
                                                       const std::string& address) {
  const std::string wanted = IpAddress::canonical(address);
  std::vector<ConntrackEntry> result;
  for (const ConntrackEntry& entry : entries) {
    if (entry.concerns(wanted)) result.push_back(entry);
  }
  return result;
}

}  // namespace lab
