// Whole tables. Input: a digit, how often the table repeats what follows, less one; a line of the
// clients' addresses and one of the lost ones, between commas; the table, any bytes.
#include <sys/mman.h>

#include "ctmgr/ZanConnTrackParser.h"
#include "fuzz/FuzzHost.h"
#include "fuzz/ReferenceReading.h"

namespace {

/// A parser whose stream and descriptor end with it.
struct Parser : ZanConnTrackParser {
  using ZanConnTrackParser::ZanConnTrackParser;
  ~Parser() { std::fclose(std::exchange(stream, nullptr)); }
};

/// Takes the texts of the first line off |bytes|.
Texts takeTexts(std::string& bytes) {
  std::string line = bytes.substr(0, bytes.find('\n'));
  bytes.erase(0, line.size() + 1);
  Texts texts;
  for (line += ','; !line.empty(); line.erase(0, line.find(',') + 1)) {
    texts.emplace_back(line.substr(0, line.find(',')).c_str());
  }
  return texts;
}

/// The sum of all lines of |table|, up to one without an entry: for the first and the last of
/// |clients|, or for the first of them that a line mentions and each of |lost|.
Reading readTable(const std::string& table, const Texts& clients, const Texts* lost) {
  Reading all{1, {}};
  for (std::size_t start = 0; start < table.size() && all.first == 1;) {
    const std::size_t end = std::min(table.find('\n', start), table.size() - 1) + 1;
    const std::string piece = table.substr(start, std::min<std::size_t>(512, end - start));
    start += piece.size();
    const std::string line = piece.substr(0, piece.find('\0'));
    const auto mentioned = std::find_if(
        clients.begin(), clients.end(),
        [&](const std::string& client) { return line.find(client) != std::string::npos; });
    if (mentioned == clients.end()) continue;
    for (std::size_t i = 0; i < (lost ? lost->size() : 1) && all.first == 1; ++i) {
      const auto one =
          readLine(line, lost ? Texts{*mentioned} : clients, lost ? &(*lost)[i] : nullptr);
      all.second.insert(all.second.end(), one.second.begin(), one.second.end());
      if (one.first == -1) all.first = -1;
    }
  }
  return all;
}

Reading scan(Parser& parser, int fd, Texts clients, const Texts* lost) {
  std::list<ZanConnTrackFilter_s> v4;
  std::list<ZanConnTrackFilter_s> v6;
  Texts addresses = lost ? *lost : Texts{};
  Reading reading{lost ? parser.parseNfConnTrackFile(clients, addresses, v4, fd)
                       : parser.parseNfConnTrackFile({"", clients[0], clients[1]}, v4, v6, fd),
                  {}};
  require(std::all_of(v6.begin(), v6.end(), [](auto& record) { return record.af == AF_INET6; }) &&
              std::all_of(v4.begin(), v4.end(), [](auto& record) { return record.af == AF_INET; }),
          "list");
  v4.splice(v4.end(), v6);
  for (const auto& record : v4) reading.second.push_back(textOf(record));
  return reading;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FuzzHost& host = *new FuzzHost;
  if (size == 0) return 0;
  std::string once(reinterpret_cast<const char*>(data + 1), size - 1);
  const Texts clients = takeTexts(once);
  const Texts lost = takeTexts(once);
  std::string table;
  for (int i = 0; i <= data[0] % 8; ++i) table += once;
  const int fd = memfd_create("table", MFD_CLOEXEC);
  Parser parser(host.utils);
  for (int i = 0; i < 3; ++i) {  // the last time it is another table
    if (i == 2) table.erase(0, table.size() / 2);
    require(ftruncate(fd, 0) == 0 && pwrite(fd, table.data(), table.size(), 0) >= 0, "no table");
    for (const Texts* addresses : {static_cast<const Texts*>(nullptr), &lost}) {
      const Texts sources = addresses ? clients : Texts{clients.front(), clients.back()};
      auto expected = readTable(table, sources, addresses);
      Reading actual = scan(parser, fd, sources, addresses);
      const auto ipv4 = [](const std::string& record) { return record[33] == '2'; };
      std::stable_partition(expected.second.begin(), expected.second.end(), ipv4);
      require(actual == expected, addresses ? "scan for lost addresses" : "scan for a client");
    }
  }
  return 0;
}
