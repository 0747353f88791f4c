#include "tests/RecordingHost.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <regex.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

#include "base/Patience.h"
#include "host/Properties.h"

namespace {

RecordingHost& recorder() {
  return *static_cast<RecordingHost*>(ZanMsg::zan_log_class_ptr);
}

/// Those that the plug-in leaves behind are freed with the host.
auto& liveSockets = *new std::set<const ZanNetlinkSocket*>;

template <typename... Arguments>
int recordCall(const char* operation, const Arguments&... arguments) {
  std::ostringstream call;
  call << operation;
  ((call << ' ' << arguments), ...);
  recorder().record(call.str());
  return -1;
}

bool isIpv6(const std::string& address) {
  return address.find(':') != std::string::npos;
}

}  // namespace

ZanMsg* ZanMsg::zan_log_class_ptr = nullptr;

struct ZanCom::HostSide {
  void (*ready)(int, void*);
  void* cbData;
};
struct ZanDsm::HostSide {};

struct HostSides {
  static auto& of(ZanCom& com) { return *com.side; }
};

ZanCom::ZanCom() : side(std::make_unique<HostSide>()) {}
ZanCom::~ZanCom() = default;

int ZanCom::addComEventHandler(int fd, void (*ready)(int, void*), void* cbData,
                               void (*second)(int, void*), unsigned int events) {
  recordCall("addComEventHandler", fd, second != nullptr, events);
  *side = {ready, cbData};
  return 0;
}

int ZanCom::removeComEventHandler(int fd) {
  recordCall("removeComEventHandler", fd);
  return 0;
}

ZanDsm::ZanDsm() : side(std::make_unique<HostSide>()) {}
ZanDsm::~ZanDsm() = default;

std::map<std::string, _ZanDsmWwanInfoType> ZanDsm::getAllWwanInfo() {
  recordCall("getAllWwanInfo");
  return recorder().wwan;
}

_ZanDsmWwanInfoType ZanDsm::getWwanInfo(const char* ifaceName) {
  recordCall("getWwanInfo", ifaceName);
  return recorder().wwan[ifaceName];
}

struct ZanRix::HostSide {};
ZanRix::ZanRix() = default;
ZanRix::~ZanRix() = default;

int ZanRix::regDormancyStatusChgEvent(std::string ifaceName, WdsCallback callback, void* cbData) {
  recorder().dormancyListener = {callback, cbData};
  return recordCall("regDormancyStatusChgEvent", ifaceName);
}

int ZanRix::deRegDormancyStatusChgEvent(std::string ifaceName, WdsCallback callback, void* cbData) {
  const bool known = recorder().dormancyListener == std::pair(callback, cbData);
  return recordCall("deRegDormancyStatusChgEvent", ifaceName, known);
}

int ZanRix::regFilteringStatusChgEvent(std::string ifaceName, DfsCallback callback, void* cbData) {
  recorder().filteringListener = {callback, cbData};
  return recordCall("regFilteringStatusChgEvent", ifaceName);
}

int ZanRix::deRegFilteringStatusChgEvent(std::string ifaceName, DfsCallback cb, void* cbData) {
  const bool known = recorder().filteringListener == std::pair(cb, cbData);
  return recordCall("deRegFilteringStatusChgEvent", ifaceName, known);
}

int ZanRix::getDormancyStatus(std::string ifaceName) {
  recordCall("getDormancyStatus", ifaceName);
  return recorder().dormancyStatus;
}

int ZanRix::setDfsFilterMode(std::string ifaceName, bool enabled) {
  return recordCall("setDfsFilterMode", ifaceName, enabled);
}

int ZanRix::installFilters(HalFilterInfo info, int conntrackFd) {
  recordCall("installFilters", info.ifaceName, info.wwanStatus, info.wwanText1, info.wwanText2,
             info.icmpFilterDisabled, conntrackFd);
  return recorder().filtersAnswer;
}

int ZanRix::uninstallFilters(std::string ifaceName) {
  return recordCall("uninstallFilters", ifaceName);
}

int ZanRix::installListenFilters(HalFilterInfo info) {
  recordCall("installListenFilters", info.ifaceName, info.wwanStatus, info.wwanText1,
             info.wwanText2, info.icmpFilterDisabled);
  return recorder().listenFiltersAnswer;
}

ZanNetlinkSocket::ZanNetlinkSocket(int protocol, unsigned int argument)
    : socketFd(1000 + protocol), side(nullptr) {
  recordCall("ZanNetlinkSocket", protocol, argument);
  liveSockets.insert(this);
}

ZanNetlinkSocket::~ZanNetlinkSocket() {
  recordCall("~ZanNetlinkSocket", socketFd);
  liveSockets.erase(this);
}

int ZanNetlinkSocket::sendConntrackNetlinkMsg(nlmsghdr* msg) {
  recorder().recordRequest(socketFd, msg);
  return -ENOENT;
}

int ZanNetlinkSocket::NetlinkRecv(unsigned int flags, NlMsgCallback callback, void* cbData) {
  recordCall("NetlinkRecv", flags);
  return recorder().deliver(callback, cbData);
}

int ZanNetlinkSocket::NetlinkRecvSocketEvent(unsigned int flags, NlMsgCallback callback,
                                             void* cbData) {
  recordCall("NetlinkRecvSocketEvent", flags);
  return recorder().deliver(callback, cbData);
}

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  recorder().record(std::string("property_get ") + key + " " + default_value);
  const char* property = recorder().property;
  return std::snprintf(value, kPropertyValueMax, "%s", property ? property : default_value);
}

RecordingHost::~RecordingHost() {
  while (!liveSockets.empty()) delete *liveSockets.begin();
  close(parentFd);
  close(zan.commandChannelFd);
  zan_log_class_ptr = nullptr;
}

std::string RecordingHost::take(const std::string& having) {
  regex_t wanted;
  regcomp(&wanted, having.c_str(), REG_EXTENDED | REG_NOSUB);
  const std::lock_guard<std::mutex> lock(mutex);
  recordPieces();
  std::string taken = "\n";
  for (const std::string& entry : std::exchange(sequence, {})) {
    if (regexec(&wanted, entry.c_str(), 0, nullptr, 0) == 0) taken += entry + "\n";
  }
  regfree(&wanted);
  return taken;
}

std::vector<Bytes> RecordingHost::awaitRequests(std::size_t count) {
  std::unique_lock<std::mutex> lock(mutex);
  requestRecorded.wait_for(lock, base::kPatience, [&] { return requests.size() >= count; });
  return requests;
}

void RecordingHost::receive(int fd, Bytes messages) {
  incoming = std::move(messages);
  const auto [ready, cbData] = HostSides::of(zan.zanCom);
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

void RecordingHost::record(std::string entry) {
  if (forgetful) return;
  whenRecorded(entry);
  const std::lock_guard<std::mutex> lock(mutex);
  recordPieces();
  sequence.push_back(std::move(entry));
}

void RecordingHost::recordRequest(int fd, const nlmsghdr* msg) {
  recordCall("sendConntrackNetlinkMsg", fd);
  const std::lock_guard<std::mutex> lock(mutex);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(msg);
  requests.emplace_back(bytes, bytes + msg->nlmsg_len);
  requestRecorded.notify_all();
}

void RecordingHost::log(int level, int module, const char* format, ...) {
  std::array<char, 2048> buffer;
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
  va_end(arguments);
  std::string text = buffer.data();
  if (std::strstr(format, "%p") || std::strstr(format, "%llX")) text = format;
  if (std::strcmp(format, "%s:%d") == 0 && text.starts_with("ZanConnTrackMgr::")) {
    text.resize(text.rfind(':'));
  }
  record(std::to_string(level) + " " + std::to_string(module) + " " + text);
}

void RecordingHost::connectParent(const std::string& answers) {
  std::array<int, 2> ends{-1, -1};
  socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data());
  close(std::exchange(zan.commandChannelFd, ends[0]));
  close(std::exchange(parentFd, ends[1]));
  for (const char answer : answers) {
    const std::int32_t value = answer == '.' ? 0 : answer == '1' ? 1 : -1;
    send(parentFd, &value, sizeof(value), 0);
  }
  shutdown(parentFd, SHUT_WR);
}

void RecordingHost::recordPieces() {
  std::string pieces;
  std::array<char, 512> piece;
  ssize_t length = 0;
  while ((length = recv(parentFd, piece.data(), piece.size(), 0)) >= 0) {
    std::int32_t number = 0;
    std::memcpy(&number, piece.data(), sizeof(number));
    const std::string text(piece.data(), static_cast<std::size_t>(length));
    if (length != 0) pieces += ' ' + (length == sizeof(number) ? std::to_string(number) : text);
  }
  if (!pieces.empty()) sequence.push_back("parent" + pieces);
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

Bytes addressBytes(const std::string& text) {
  Bytes bytes(isIpv6(text) ? sizeof(in6_addr) : sizeof(in_addr));
  inet_pton(isIpv6(text) ? AF_INET6 : AF_INET, text.c_str(), bytes.data());
  return bytes;
}

Bytes neighbourMessage(std::uint8_t type, std::uint8_t family,
                       const std::vector<std::pair<std::uint8_t, Bytes>>& attributes) {
  Bytes message(sizeof(nlmsghdr) + sizeof(ndmsg));
  for (const auto& [attribute, payload] : attributes) {
    const auto length = static_cast<std::uint8_t>(sizeof(rtattr) + payload.size());
    message.insert(message.end(), {length, 0, attribute, 0});
    message.insert(message.end(), payload.begin(), payload.end());
    message.resize((message.size() + 3) & ~std::size_t{3});
  }
  message[0] = static_cast<std::uint8_t>(message.size());
  message[4] = type;
  message[16] = family;
  return message;
}
