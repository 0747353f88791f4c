#include "ctmgr/ConntrackDeleter.h"

#include <arpa/inet.h>

#include <cstring>

#include "ctmgr/Log.h"

namespace ctmgr {

namespace {

constexpr int kModule = ZAN_LOG_MODULE_CT_MGR;

ConntrackTuple tupleOf(const ZanConnTrackFilter_s& record) {
  const std::size_t addressLength = record.af == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  ConntrackTuple tuple{};
  std::memcpy(tuple.src, record.src, addressLength);
  std::memcpy(tuple.dst, record.dest, addressLength);
  tuple.l3protonum = static_cast<std::uint8_t>(record.af);
  tuple.protonum = static_cast<std::uint8_t>(record.protocol);
  tuple.srcPrt = htons(record.sport);
  tuple.dstPrt = htons(record.dport);
  return tuple;
}

}  // namespace

void ConntrackDeleter::deleteV4(const std::list<ZanConnTrackFilter_s>& entries) {
  for (const ZanConnTrackFilter_s& entry : entries) {
    const ConntrackTuple tuple = tupleOf(entry);
    ZAN_LOG(kModule, kLogTrace,
            "DeleteV4Entry src: %u, dst: %u srcPrt %d, dstPrt %d, protonum %d l3protonum %d",
            addressWord(tuple.src, 0), addressWord(tuple.dst, 0), tuple.srcPrt, tuple.dstPrt,
            tuple.protonum, tuple.l3protonum);
    if (!send(tuple)) ZAN_LOG(kModule, kLogError, "fillTupleInfo v4 Failed");
  }
}

void ConntrackDeleter::deleteV6(const std::list<ZanConnTrackFilter_s>& entries) {
  for (const ZanConnTrackFilter_s& entry : entries) {
    const ConntrackTuple tuple = tupleOf(entry);
// The line has six conversions for twelve values, so it shows the first six address words.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args"
#pragma GCC diagnostic ignored "-Wformat"
    ZAN_LOG(kModule, kLogTrace,
            "DeleteV6Entry src: %u, dst: %u, srcPrt %d, dstPrt %d, protonum %d l3protonum %d",
            addressWord(tuple.src, 0), addressWord(tuple.src, 1), addressWord(tuple.src, 2),
            addressWord(tuple.src, 3), addressWord(tuple.dst, 0), addressWord(tuple.dst, 1),
            addressWord(tuple.dst, 2), addressWord(tuple.dst, 3), tuple.srcPrt, tuple.dstPrt,
            tuple.protonum, tuple.l3protonum);
#pragma GCC diagnostic pop
    if (!send(tuple)) ZAN_LOG(kModule, kLogError, "fillTupleInfo v6 Failed");
  }
}

bool ConntrackDeleter::send(const ConntrackTuple& tuple) {
  alignas(nlmsghdr) unsigned char buffer[DELETE_MSG_MAX_LEN] = {};
  auto* msg = reinterpret_cast<nlmsghdr*>(buffer);
  fillDeleteHeader(msg, tuple.l3protonum, ++deleteSeq);
  if (!appendTuple(msg, tuple)) return false;
  conntrackSocket->sendConntrackNetlinkMsg(msg);
  return true;
}

}  // namespace ctmgr
