// Tables, each of their lines, and the expansion of addresses. Input: a digit, how often the table
// repeats what follows, less one; two clients' addresses and two lost ones, a line each; the
// table, any bytes.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "ctmgr/ZanConnTrackParser.h"
#include "fuzz/FuzzHost.h"

static bool operator==(const ZanConnTrackFilter_s& a, const ZanConnTrackFilter_s& b) {
  constexpr std::size_t kUpToPadding = offsetof(ZanConnTrackFilter_s, dest) + sizeof(a.dest);
  return std::memcmp(&a, &b, kUpToPadding) == 0 && a.protocol == b.protocol;
}

namespace {

using Texts = std::vector<std::string>;

/// What a table gives.
struct Reading {
  bool operator==(const Reading& other) const = default;
  int result;
  std::list<ZanConnTrackFilter_s> v4;
  std::list<ZanConnTrackFilter_s> v6;
};

/// |text| as the plug-in expands it.
std::string expanded(const std::string& text) {
  std::vector<char> buffer(std::max(text.size() + 1, kAddressTextSize));
  text.copy(buffer.data(), text.size());
  ZanConnTrackUtils::getIpV6Address(buffer.data());
  std::uint8_t address[16];
  const bool ipv6 = inet_pton(AF_INET6, text.c_str(), address) == 1;
  require(buffer.data() == (ipv6 ? addressText(AF_INET6, address) : text), "expansion");
  return buffer.data();
}

/// Reads |line| for the source |clients|, and the translated address |lost| unless it is null. Like
/// the parser it cuts a token that is longer than any kernel prints.
int readLine(const std::string& line, const Texts& clients, const std::string* lost,
             ZanConnTrackFilter_s& out) {
  const std::size_t original = line.find("src=");
  if (original == std::string::npos) return -1;
  char start[5][16] = {};
  std::sscanf(line.c_str(), "%15s %15s %15s %3s %1s", start[0], start[1], start[2], start[3],
              start[4]);
  const std::string layer3 = start[0];
  const std::string layer4 = start[2];
  ZanConnTrackFilter_s record{};
  record.af = layer3 == "ipv4" ? AF_INET : layer3 == "ipv6" && !lost ? AF_INET6 : AF_UNSPEC;
  record.protocol = layer4 == "udp" ? IPPROTO_UDP : layer4 == "tcp" ? IPPROTO_TCP : 0;
  if (record.af == AF_UNSPEC || record.protocol == 0) return -10;

  char src[48];
  char dst[48];
  const auto readDirection = [&](std::size_t at) {
    char rest[2];
    std::memset(src, 0, sizeof(src));
    std::memset(dst, 0, sizeof(dst));
    std::sscanf(line.c_str() + at, "src=%47s dst=%47s sport=%hu dport=%hu %1s", src, dst,
                &record.sport, &record.dport, rest);
    std::uint8_t address[16] = {};
    inet_pton(record.af, src, address);
    return std::count(clients.begin(), clients.end(), addressText(record.af, address)) != 0;
  };
  bool found = readDirection(original);
  if (lost && !found) return -10;
  if (lost || !found) {
    const std::size_t reply = line.find("src=", original + 4);
    if (reply == std::string::npos) return -1;
    found = readDirection(reply);
    if (lost) found = dst == *lost;
  }
  if (!found) return -10;
  inet_pton(record.af, src, record.src);
  inet_pton(record.af, dst, record.dest);
  out = record;
  return 1;
}

/// The sum of all lines of |table|, up to one without an entry: for the |clients|, or for the first
/// of them that a line mentions and each of the addresses |lost|. The parser reads the lines too.
Reading readTable(ZanConnTrackParser& parser, const std::string& table, const Texts& clients,
                  std::initializer_list<const std::string*> lost) {
  Reading all{1, {}, {}};
  for (std::size_t start = 0; start < table.size() && all.result == 1;) {
    const std::size_t toEnd = std::min<std::size_t>(511, table.find('\n', start) - start);
    const std::string piece = table.substr(start, toEnd + 1);
    start += piece.size();
    const std::string line = piece.substr(0, piece.find('\0'));
    const std::string& client = clients[line.find(clients[0]) == std::string::npos];
    const bool mentioned = line.find(client) != std::string::npos;
    for (auto address = lost.begin(); address != lost.end() && all.result == 1; ++address) {
      ZanConnTrackFilter_s expected{1, 2, 3, {4}, {5}, 6};
      ZanConnTrackFilter_s actual = expected;
      const int result = readLine(line, *address ? Texts{client} : clients, *address, expected);
      const int found = *address
                            ? parser.parseNfConnTrackLine(line, client, **address, actual)
                            : parser.parseNfConnTrackLine({line, clients[0], clients[1]}, actual);
      require(found == result && actual == expected, "line");
      if (mentioned && result == 1) (expected.af == AF_INET ? all.v4 : all.v6).push_back(expected);
      if (mentioned && result == -1) all.result = -1;
    }
  }
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzHost& host = *new FuzzHost;
  static const TableFile& file = *new TableFile;
  static ZanConnTrackParser& parser = *new ZanConnTrackParser(host.utils);
  if (size == 0) return 0;
  std::string once(data + 1, data + size);
  Texts clients(2);
  Texts lost(2);
  for (std::string* address : {&clients[0], &clients[1], &lost[0], &lost[1]}) {
    const std::string line = once.substr(0, once.find('\n'));
    once.erase(0, line.size() + 1);
    *address = expanded(line.substr(0, line.find('\0')));
  }
  std::string table;
  for (int i = 0; i <= data[0] % 8; ++i) table += once;
  for (const std::string& content : {table, table.substr(table.size() / 2)}) {
    file.write(content);
    Reading one{};
    one.result =
        parser.parseNfConnTrackFile({"", clients[0], clients[1]}, one.v4, one.v6, file.fd());
    require(one == readTable(parser, content, clients, {nullptr}), "scan for a client");
    Reading all{};
    all.result = parser.parseNfConnTrackFile(clients, lost, all.v4, file.fd());
    require(all == readTable(parser, content, clients, {&lost[0], &lost[1]}),
            "scan for lost addresses");
  }
  return 0;
}
