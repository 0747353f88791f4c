// The kernel's connection-tracking table, as the lab reads and fills it.
#include "lab/ConntrackTable.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <sstream>
#include <tuple>

#include "base/MemoryFile.h"
#include "base/UniqueFd.h"
#include "lab/Error.h"
#include "lab/NetNamespace.h"
#include "lab/Process.h"
#include "lab/Socket.h"

namespace lab {
namespace {

constexpr char kTableFile[] = "/proc/thread-self/net/nf_conntrack";

/// Half a million entries on an emulated machine.
constexpr std::chrono::minutes kFillingLimit{2};

std::uint16_t toPort(const std::string& text, const std::string& line) {
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, port);
  if (result.ec != std::errc{} || result.ptr != end) throw Error("no port in the line: " + line);
  return port;
}

/// Puts a key=value word into its place; each of the four keys occurs once a direction.
void applyPair(const std::string& key, const std::string& value, ConntrackEntry& entry) {
  if (key == "src") {
    ConntrackTuple& tuple = entry.original.source.empty() ? entry.original : entry.reply;
    tuple.source = canonicalIp(value);
    return;
  }
  ConntrackTuple& tuple = entry.reply.source.empty() ? entry.original : entry.reply;
  if (key == "dst") tuple.destination = canonicalIp(value);
  if (key == "sport") tuple.sourcePort = toPort(value, entry.line);
  if (key == "dport") tuple.destinationPort = toPort(value, entry.line);
}

// family-name family-number protocol-name protocol-number [timeout] [STATE] src=.. dst=.. ...
ConntrackEntry parseLine(const std::string& line) {
  std::istringstream words(line);
  std::string family;
  std::string number;
  ConntrackEntry entry;
  entry.line = line;
  words >> family >> number >> entry.protocol >> number;
  if (family != "ipv4" && family != "ipv6") throw Error("strange conntrack line: " + line);
  entry.family = family == "ipv4" ? 4 : 6;

  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    if (equals != std::string::npos) {
      applyPair(word.substr(0, equals), word.substr(equals + 1), entry);
    } else if (entry.original.source.empty() && std::isdigit(word.front()) == 0) {
      entry.state = word;
    }
  }
  if (entry.reply.destination.empty()) throw Error("incomplete conntrack line: " + line);
  return entry;
}

std::string readTableFile() {
  const base::UniqueFd file(::open(kTableFile, O_RDONLY | O_CLOEXEC));
  const auto text = file.valid() ? base::readAll(file.get()) : std::nullopt;
  if (text) return *text;
  throw systemError(std::string("cannot read ") + kTableFile, errno,
                    "is nf_conntrack loaded and built with its proc file?");
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
  return std::tie(family, protocol, original, reply) ==
         std::tie(other.family, other.protocol, other.original, other.reply);
}

std::string ConntrackEntry::text() const {
  return "IPv" + std::to_string(family) + " " + protocol + " " +
         endpoint(original.source, original.sourcePort) + " -> " +
         endpoint(original.destination, original.destinationPort);
}

ConntrackEntries readConntrackTable(const NetNamespace& where) {
  std::istringstream lines(where.run(readTableFile));
  ConntrackEntries entries;
  for (std::string line; std::getline(lines, line);) entries.push_back(parseLine(line));
  return entries;
}

std::size_t countSurvivors(const ConntrackEntries& before, const ConntrackEntries& now) {
  const auto survives = [&now](const ConntrackEntry& entry) {
    return std::any_of(now.begin(), now.end(), [&entry](const ConntrackEntry& other) {
      return entry.sameConnection(other);
    });
  };
  return static_cast<std::size_t>(std::count_if(before.begin(), before.end(), survives));
}

void insertConntrackEntries(const NetNamespace& where, const std::string& lines) {
  const base::ProgramRun result =
      Process::run({"conntrack", "--load-file", "-"}, &where, lines, kFillingLimit);
  // It goes on after a line that fails, and ends with success.
  if (result.status.success() && result.errors.empty()) return;
  throw Error("conntrack(8) does not insert all entries: " + result.output + result.errors);
}

void clearConntrackTable(const NetNamespace& where) {
  Process::runChecked({"conntrack", "--flush"}, &where);
}

}  // namespace lab
