#include "fuzz/ReferenceReading.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>

namespace {

/// The addresses of one direction, and |record|'s ports as far as |tuple| has them.
struct Addresses {
  Addresses(const std::string& tuple, ZanConnTrackFilter_s& record) {
    char more[2];
    std::sscanf(tuple.c_str(), "src=%47s dst=%47s sport=%hu dport=%hu %1s", src, dst, &record.sport,
                &record.dport, more);
  }
  [[nodiscard]] bool from(const Texts& clients, int family) const {
    std::uint8_t address[16] = {};
    inet_pton(family, src, address);
    return std::count(clients.begin(), clients.end(), addressText(family, address)) != 0;
  }
  char src[48] = {};
  char dst[48] = {};
};

Reading matched(ZanConnTrackFilter_s record, const Addresses& addresses) {
  inet_pton(record.af, addresses.src, record.src);
  inet_pton(record.af, addresses.dst, record.dest);
  return {1, {textOf(record)}};
}

}  // namespace

Reading readLine(const std::string& line, const Texts& clients, const std::string* lost) {
  const std::size_t original = line.find("src=");
  if (original == std::string::npos) return {-1, {}};
  char start[5][16] = {};
  std::sscanf(line.c_str(), "%15s %15s %15s %3s %1s", start[0], start[1], start[2], start[3],
              start[4]);
  const std::string layer3 = start[0];
  const std::string layer4 = start[2];
  ZanConnTrackFilter_s record{};
  record.af = layer3 == "ipv4" ? AF_INET : layer3 == "ipv6" && !lost ? AF_INET6 : AF_UNSPEC;
  record.protocol = layer4 == "udp" ? IPPROTO_UDP : layer4 == "tcp" ? IPPROTO_TCP : 0;
  if (record.af == AF_UNSPEC || record.protocol == 0) return {-10, {}};

  const Addresses out(line.substr(original), record);
  const bool fromClient = out.from(clients, record.af);
  if (fromClient && !lost) return matched(record, out);
  if (!fromClient && lost) return {-10, {}};
  const std::size_t reply = line.find("src=", original + 4);
  if (reply == std::string::npos) return {-1, {}};
  const Addresses back(line.substr(reply), record);
  const bool found = lost ? back.dst == *lost : back.from(clients, record.af);
  return found ? matched(record, back) : Reading{-10, {}};
}

std::string textOf(const ZanConnTrackFilter_s& record) {
  std::string text(reinterpret_cast<const char*>(record.src), sizeof(record.src));
  text.append(reinterpret_cast<const char*>(record.dest), sizeof(record.dest));
  for (const int number : {int{record.af}, int{record.sport}, int{record.dport}, record.protocol}) {
    text += ' ' + std::to_string(number);
  }
  return text;
}

std::string addressText(int family, const std::uint8_t* address) {
  char text[40];
  const auto group = [&](int i) {
    return static_cast<unsigned int>(address[i] << 8 | address[i + 1]);
  };
  if (family == AF_INET) {
    std::snprintf(text, sizeof(text), "%d.%d.%d.%d", address[0], address[1], address[2],
                  address[3]);
  } else {
    std::snprintf(text, sizeof(text), "%04x:%04x:%04x:%04x:%04x:%04x:%04x:%04x", group(0), group(2),
                  group(4), group(6), group(8), group(10), group(12), group(14));
  }
  return text;
}
