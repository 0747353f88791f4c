// The host's operations, each of which is noted.
#include "tests/RecordingHost.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>
#include <sstream>

#include "host/Properties.h"

namespace {

RecordingHost& recorder() {
  return *static_cast<RecordingHost*>(ZanMsg::zan_log_class_ptr);
}

/// Those that the plug-in leaves behind are freed with the host.
auto& liveSockets = *new std::set<const ZanNetlinkSocket*>;

template <typename... Arguments>
int noteCall(const char* operation, const Arguments&... arguments) {
  std::ostringstream call;
  call << operation;
  ((call << ' ' << arguments), ...);
  recorder().note(call.str());
  return -1;
}

bool isIpv6(const std::string& address) {
  return address.find(':') != std::string::npos;
}

}  // namespace

ZanMsg* ZanMsg::zan_log_class_ptr = nullptr;

struct ZanCom::HostSide {
  std::map<int, std::pair<void (*)(int, void*), void*>> watches;
};
struct ZanDsm::HostSide {};

struct HostSides {
  static auto& of(ZanCom& com) { return *com.side; }
};

ZanCom::ZanCom() : side(std::make_unique<HostSide>()) {}
ZanCom::~ZanCom() = default;

int ZanCom::addComEventHandler(int fd, void (*ready)(int, void*), void* cbData,
                               void (*second)(int, void*), unsigned int events) {
  noteCall("addComEventHandler", fd, second != nullptr, events);
  side->watches[fd] = {ready, cbData};
  return 0;
}

int ZanCom::removeComEventHandler(int fd) {
  noteCall("removeComEventHandler", fd);
  side->watches.erase(fd);
  return 0;
}

ZanDsm::ZanDsm() : side(std::make_unique<HostSide>()) {}
ZanDsm::~ZanDsm() = default;

std::map<std::string, _ZanDsmWwanInfoType> ZanDsm::getAllWwanInfo() {
  noteCall("getAllWwanInfo");
  return recorder().wwan;
}

_ZanDsmWwanInfoType ZanDsm::getWwanInfo(const char* ifaceName) {
  noteCall("getWwanInfo", ifaceName);
  return recorder().wwan[ifaceName];
}

struct ZanRix::HostSide {};
ZanRix::ZanRix() = default;
ZanRix::~ZanRix() = default;

int ZanRix::regDormancyStatusChgEvent(std::string ifaceName, WdsCallback callback, void* cbData) {
  recorder().dormancyListener = {callback, cbData};
  return noteCall("regDormancyStatusChgEvent", ifaceName);
}

int ZanRix::deRegDormancyStatusChgEvent(std::string ifaceName, WdsCallback callback, void* cbData) {
  const bool known = recorder().dormancyListener == std::pair(callback, cbData);
  return noteCall("deRegDormancyStatusChgEvent", ifaceName, known);
}

int ZanRix::regFilteringStatusChgEvent(std::string ifaceName, DfsCallback callback, void* cbData) {
  recorder().filteringListener = {callback, cbData};
  return noteCall("regFilteringStatusChgEvent", ifaceName);
}

int ZanRix::deRegFilteringStatusChgEvent(std::string ifaceName, DfsCallback cb, void* cbData) {
  const bool known = recorder().filteringListener == std::pair(cb, cbData);
  return noteCall("deRegFilteringStatusChgEvent", ifaceName, known);
}

int ZanRix::getDormancyStatus(std::string ifaceName) {
  noteCall("getDormancyStatus", ifaceName);
  return recorder().dormancyStatus;
}

int ZanRix::setDfsFilterMode(std::string ifaceName, bool enabled) {
  return noteCall("setDfsFilterMode", ifaceName, enabled);
}

int ZanRix::installFilters(HalFilterInfo info, int conntrackFd) {
  noteCall("installFilters", info.ifaceName, info.wwanStatus, info.wwanText1, info.wwanText2,
           info.icmpFilterDisabled, conntrackFd);
  return recorder().filtersAnswer;
}

int ZanRix::uninstallFilters(std::string ifaceName) {
  return noteCall("uninstallFilters", ifaceName);
}

int ZanRix::installListenFilters(HalFilterInfo info) {
  noteCall("installListenFilters", info.ifaceName, info.wwanStatus, info.wwanText1, info.wwanText2,
           info.icmpFilterDisabled);
  return recorder().listenFiltersAnswer;
}

ZanNetlinkSocket::ZanNetlinkSocket(int protocol, unsigned int argument)
    : socketFd(1000 + protocol), side(nullptr) {
  noteCall("ZanNetlinkSocket", protocol, argument);
  liveSockets.insert(this);
}

ZanNetlinkSocket::~ZanNetlinkSocket() {
  noteCall("~ZanNetlinkSocket", socketFd);
  HostSides::of(recorder().zan.zanCom).watches.erase(socketFd);
  liveSockets.erase(this);
}

int ZanNetlinkSocket::sendConntrackNetlinkMsg(nlmsghdr* msg) {
  recorder().noteRequest(socketFd, msg);
  return -ENOENT;
}

int ZanNetlinkSocket::NetlinkRecv(unsigned int flags, NlMsgCallback callback, void* cbData) {
  noteCall("NetlinkRecv", flags);
  return recorder().deliver(callback, cbData);
}

int ZanNetlinkSocket::NetlinkRecvSocketEvent(unsigned int flags, NlMsgCallback callback,
                                             void* cbData) {
  noteCall("NetlinkRecvSocketEvent", flags);
  return recorder().deliver(callback, cbData);
}

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  recorder().note(std::string("property_get ") + key + " " + default_value);
  const char* property = recorder().property;
  return std::snprintf(value, kPropertyValueMax, "%s", property ? property : default_value);
}

RecordingHost::~RecordingHost() {
  while (!liveSockets.empty()) delete *liveSockets.begin();
  close(parentFd);
  close(zan.commandChannelFd);
  zan_log_class_ptr = nullptr;
}

Lines RecordingHost::record() {
  const std::lock_guard<std::mutex> lock(mutex);
  noteExchanges();
  return lines;
}

Lines RecordingHost::calls(const std::string& start) {
  Lines found = record();
  std::erase_if(found, [&](const std::string& line) { return !line.starts_with(start); });
  return found;
}

Lines RecordingHost::logged(const std::string& part) {
  Lines found = record();
  std::erase_if(found, [&](const std::string& line) {
    const bool isLog = line[0] >= '0' && line[0] <= '9';
    return !isLog || line.find(part) == std::string::npos;
  });
  return found;
}

void RecordingHost::forget() {
  const std::lock_guard<std::mutex> lock(mutex);
  noteExchanges();
  lines.clear();
}

std::vector<Bytes> RecordingHost::requests() {
  const std::lock_guard<std::mutex> lock(mutex);
  return deleteRequests;
}

void RecordingHost::reportDormancy(std::int32_t status, const std::string& ifaceName) const {
  const ZanRixStatusRecord record{ifaceName, status};
  dormancyListener.first(ZAN_RIX_WDS_EVENT_DORMANCY_STATUS, &record, dormancyListener.second);
}

void RecordingHost::reportFiltering(std::int32_t status, const std::string& ifaceName) const {
  const ZanRixStatusRecord record{ifaceName, status};
  filteringListener.first(ZAN_RIX_DFS_EVENT_FILTERING_STATUS, &record, filteringListener.second);
}

void RecordingHost::receive(int fd, Bytes messages) {
  incoming = std::move(messages);
  const auto& watches = HostSides::of(zan.zanCom).watches;
  const auto watch = watches.find(fd);
  if (watch == watches.end()) return;
  const auto [ready, cbData] = watch->second;
  ready(fd, cbData);
}

int RecordingHost::deliver(NlMsgCallback callback, void* cbData) {
  const std::size_t length = incoming.size();
  incoming.resize(length + kNetlinkReceiveSlack);
  for (std::size_t offset = 0; offset < length;) {
    auto* msg = static_cast<nlmsghdr*>(static_cast<void*>(incoming.data() + offset));
    offset += msg->nlmsg_len;
    callback(cbData, msg, msg->nlmsg_len);
  }
  return 0;
}

void RecordingHost::note(std::string line) {
  if (forgetful) return;
  whenRecorded(line);
  const std::lock_guard<std::mutex> lock(mutex);
  noteExchanges();
  lines.push_back(std::move(line));
}

void RecordingHost::noteRequest(int fd, const nlmsghdr* msg) {
  noteCall("sendConntrackNetlinkMsg", fd);
  const std::lock_guard<std::mutex> lock(mutex);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(msg);
  deleteRequests.emplace_back(bytes, bytes + msg->nlmsg_len);
}

void RecordingHost::log(int level, int module, const char* format, ...) {
  std::array<char, 2048> buffer;
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
  va_end(arguments);
  std::string text = buffer.data();
  if (std::strstr(format, "%p") || std::strstr(format, "%llX")) text = format;
  note(std::to_string(level) + " " + std::to_string(module) + " " + text);
}

void RecordingHost::connectParent(const std::vector<std::int32_t>& answers) {
  // Packets keep the pieces of an exchange apart for the record.
  std::array<int, 2> ends{-1, -1};
  socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data());
  close(std::exchange(zan.commandChannelFd, ends[0]));
  close(std::exchange(parentFd, ends[1]));
  for (const std::int32_t answer : answers) send(parentFd, &answer, sizeof(answer), 0);
  shutdown(parentFd, SHUT_WR);
}

/// A line for each exchange whose pieces have come: command, four arguments, acknowledgement.
void RecordingHost::noteExchanges() {
  constexpr int kPieces = 6;
  std::array<char, 512> piece{};
  std::string exchange;
  ssize_t length = 0;
  for (int pieces = 0; (length = recv(parentFd, piece.data(), piece.size(), 0)) > 0;) {
    std::int32_t number = 0;
    std::memcpy(&number, piece.data(), sizeof(number));
    const std::string text(piece.data(), static_cast<std::size_t>(length) - 1);  // and its NUL
    exchange += ' ' + (length == sizeof(number) ? std::to_string(number) : text);
    if (++pieces % kPieces == 0) lines.push_back("parent" + std::exchange(exchange, {}));
  }
  if (!exchange.empty()) lines.push_back("parent" + exchange);
}

void TableFile::write(const std::string& text) const {
  const auto length = static_cast<ssize_t>(text.size());
  if (ftruncate(fd(), 0) != 0 || pwrite(fd(), text.data(), text.size(), 0) != length) std::abort();
}

std::string tableEntry(const std::string& client, int port, const std::string& upstream) {
  const std::string server = isIpv6(client) ? "2001:db8::9" : "9.9.9.9";
  const std::string own = std::to_string(port);
  return std::string(isIpv6(client) ? "ipv6     10" : "ipv4     2") +
         " tcp      6 99 CLOSE src=" + client + " dst=" + server + " sport=" + own +
         " dport=44 src=" + server + " dst=" + upstream + " sport=44 dport=" + own + " use=2\n";
}

Bytes neighbourMessage(std::uint8_t type, const std::string& address, const Bytes& mac) {
  const int family = isIpv6(address) ? AF_INET6 : AF_INET;
  Bytes addressBytes(family == AF_INET6 ? sizeof(in6_addr) : sizeof(in_addr));
  inet_pton(family, address.c_str(), addressBytes.data());
  Bytes message(sizeof(nlmsghdr) + sizeof(ndmsg));
  const auto append = [&](std::uint8_t attribute, const Bytes& payload) {
    const auto length = static_cast<std::uint8_t>(sizeof(rtattr) + payload.size());
    message.insert(message.end(), {length, 0, attribute, 0});
    message.insert(message.end(), payload.begin(), payload.end());
    message.resize((message.size() + 3) & ~std::size_t{3});
  };
  append(NDA_DST, addressBytes);
  append(NDA_LLADDR, mac);
  message[0] = static_cast<std::uint8_t>(message.size());
  message[4] = type;
  message[16] = static_cast<std::uint8_t>(family);
  return message;
}
