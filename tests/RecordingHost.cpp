#include "tests/RecordingHost.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <regex.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <set>

#include "host/Properties.h"

namespace {

RecordingHost& recorder() {
  return *static_cast<RecordingHost*>(ZanMsg::zan_log_class_ptr);
}

/// Sockets that nobody frees are no leaks as long as they stand here, to the end of the process.
auto& liveSockets = *new std::set<const ZanNetlinkSocket*>;

template <typename... Arguments>
void recordCall(std::string operation, Arguments... arguments) {
  ((operation += " " + std::to_string(arguments)), ...);
  recorder().record(std::move(operation));
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
  if (recorder().onSend) recorder().onSend();
  recordCall("sendConntrackNetlinkMsg", socketFd);
  recorder().recordRequest(msg);
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

std::string RecordingHost::take(const std::string& having) {
  regex_t wanted;
  regcomp(&wanted, having.c_str(), REG_EXTENDED | REG_NOSUB);
  const std::lock_guard<std::mutex> lock(mutex);
  std::string taken = "\n";
  for (const std::string& entry : std::exchange(sequence, {})) {
    if (regexec(&wanted, entry.c_str(), 0, nullptr, 0) == 0) taken += entry + "\n";
  }
  regfree(&wanted);
  return taken;
}

std::vector<RecordingHost::Request> RecordingHost::awaitRequests(std::size_t count,
                                                                 Clock::duration limit) {
  std::unique_lock<std::mutex> lock(mutex);
  requestRecorded.wait_for(lock, limit, [&] { return requests.size() >= count; });
  return requests;
}

void RecordingHost::receive(int fd, Bytes messages) {
  incoming = std::move(messages);
  const auto [ready, cbData] = zan.zanCom.hostSide();
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
  const std::lock_guard<std::mutex> lock(mutex);
  sequence.push_back(std::move(entry));
}

void RecordingHost::recordRequest(const nlmsghdr* msg) {
  const std::lock_guard<std::mutex> lock(mutex);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(msg);
  requests.push_back({Bytes(bytes, bytes + msg->nlmsg_len), Clock::now()});
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
