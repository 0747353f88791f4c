// Single lines of the table. Input: two addresses, of the client or the second one lost, with a
// newline each, then the line.
#include <cstring>

#include "ctmgr/ZanConnTrackParser.h"
#include "fuzz/FuzzHost.h"
#include "fuzz/ReferenceReading.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzHost& host = *new FuzzHost;
  static ZanConnTrackParser& parser = *new ZanConnTrackParser(host.utils);
  const auto* text = reinterpret_cast<const char*>(data);
  std::string line(text, strnlen(text, size));
  Texts addresses(2);
  for (std::string& address : addresses) {
    address = line.substr(0, line.find('\n'));
    line.erase(0, address.size() + 1);
  }
  const auto compare = [&](const std::string* lost, const char* what) {
    ZanConnTrackFilter_s record{1, 2, 3, {4}, {5}, 6};
    const std::string before = textOf(record);
    const int result =
        lost ? parser.parseNfConnTrackLine(line, addresses[0], *lost, record)
             : parser.parseNfConnTrackLine({line, addresses[0], addresses[1]}, record);
    const auto expected = readLine(line, lost ? Texts{addresses[0]} : addresses, lost);
    require(result == expected.first, what);
    require(textOf(record) == (result == 1 ? expected.second[0] : before), what);
  };
  compare(nullptr, "line for a client");
  compare(&addresses[1], "line for a lost address");
  return 0;
}
