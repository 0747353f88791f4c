// The expansion of IPv6 address texts, in place. Input: the text.
#include <arpa/inet.h>

#include <cstring>

#include "fuzz/FuzzHost.h"
#include "fuzz/ReferenceReading.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzHost& host = *new FuzzHost;
  std::string expected(reinterpret_cast<const char*>(data), size);
  expected.resize(std::max(size + 1, kAddressTextSize));
  const auto text = std::make_unique<char[]>(expected.size());
  std::memcpy(text.get(), expected.data(), expected.size());
  std::uint8_t address[16];
  if (inet_pton(AF_INET6, expected.c_str(), address) == 1) {
    expected.replace(0, 40, addressText(AF_INET6, address) + '\0');
  }
  for (const char* what : {"expansion", "expansion of what is expanded"}) {
    host.utils.getIpV6Address(text.get());
    require(std::memcmp(text.get(), expected.data(), expected.size()) == 0, what);
  }
  return 0;
}
