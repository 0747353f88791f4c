#include "ctmgr/NetlinkRequest.h"

#include <cstring>

#include "ctmgr/CheckedArithmetic.h"
#include "ctmgr/Log.h"

namespace {

constexpr unsigned int kHeaderLength = sizeof(nlattr);

unsigned char* bytesOf(void* object) {
  return static_cast<unsigned char*>(object);
}

}  // namespace

nlattr* appendAttribute(nlmsghdr* msg, std::uint16_t type, std::size_t payloadLength,
                        const void* value, std::size_t valueLength) {
  const auto length = checkedAdd(kHeaderLength, static_cast<unsigned int>(payloadLength));
  const unsigned int start = checkedAlign4(msg->nlmsg_len);
  const unsigned int end = checkedAdd(start, length);
  if (end > DELETE_MSG_MAX_LEN) {
    ZAN_LOG(ZAN_LOG_MODULE_CT_MGR, kLogError, "addattr_l failed - exceeded maxLen: %d > %d",
            static_cast<int>(end), static_cast<int>(DELETE_MSG_MAX_LEN));
    return nullptr;
  }
  auto* attribute = static_cast<nlattr*>(static_cast<void*>(bytesOf(msg) + start));
  attribute->nla_len = static_cast<std::uint16_t>(length);
  attribute->nla_type = type;
  if (valueLength != 0) std::memcpy(bytesOf(msg) + start + kHeaderLength, value, valueLength);
  msg->nlmsg_len = end;
  return attribute;
}

nlattr* openNest(nlmsghdr* msg, std::uint16_t type) {
  return appendAttribute(msg, type, 0, nullptr, 0);
}

void closeNest(nlmsghdr* msg, nlattr* nest) {
  const auto offset = static_cast<unsigned int>(bytesOf(nest) - bytesOf(msg));
  nest->nla_len = static_cast<std::uint16_t>(checkedSub(checkedAlign4(msg->nlmsg_len), offset));
}
