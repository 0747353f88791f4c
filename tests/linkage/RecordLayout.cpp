// Prints where this build's compiler puts the fields of the records that the host hands over.
#include <cstddef>
#include <cstdio>

#include "host/ZanDsmEvents.h"

// Both compilers know the offsets of records that hold standard containers.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

int main() {
  std::printf("status record:  status %zu, interface name %zu, APN list %zu\n",
              offsetof(ZanDsmWwanStatusInfo, status), offsetof(ZanDsmWwanStatusInfo, ifaceName),
              offsetof(ZanDsmWwanStatusInfo, apnList));
  std::printf("WWAN record:    words %zu, APN list %zu, text %zu, size %zu\n",
              offsetof(_ZanDsmWwanInfoType, word0), offsetof(_ZanDsmWwanInfoType, apnList),
              offsetof(_ZanDsmWwanInfoType, text), sizeof(_ZanDsmWwanInfoType));
}
