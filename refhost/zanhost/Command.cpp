// The table of commands, and how each reads its arguments.
#include "refhost/zanhost/Command.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <sstream>
#include <utility>

#include "base/InterfaceName.h"
#include "host/Agreement.h"

namespace zanhost {
namespace {

using Words = std::vector<std::string>;

/// A day: longer pauses are slips.
constexpr double kLongestWaitSeconds = 86400;

ParsedLine wrong(std::string text) {
  return {std::nullopt, std::move(text)};
}

/// "%02x:%02x:%02x:%02x:%02x:%02x", either case.
bool isMac(const std::string& text) {
  constexpr std::size_t kLength = 17;
  if (text.size() != kLength) return false;
  for (std::size_t i = 0; i < kLength; ++i) {
    const auto character = static_cast<unsigned char>(text[i]);
    if (i % 3 == 2 ? character != ':' : std::isxdigit(character) == 0) return false;
  }
  return true;
}

bool isAddress(const std::string& text) {
  std::array<unsigned char, sizeof(in6_addr)> address;
  return inet_pton(AF_INET, text.c_str(), address.data()) == 1 ||
         inet_pton(AF_INET6, text.c_str(), address.data()) == 1;
}

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char character) {
    return static_cast<char>(std::tolower(character));
  });
  return text;
}

ParsedLine parseClients(const Words& arguments) {
  ClientsCommand command;
  for (const std::string& argument : arguments) {
    if (!isMac(argument)) {
      return wrong("'" + argument + "' is no MAC address such as 02:00:00:00:43:0a");
    }
    command.clients.push_back(lowerCase(argument));
  }
  return {command, {}};
}

ParsedLine parseUpstreamLost(const Words& arguments) {
  if (arguments.empty()) return wrong("name at least one IP address");
  for (const std::string& argument : arguments) {
    if (!isAddress(argument)) {
      return wrong("'" + argument + "' is no IPv4 or IPv6 address");
    }
  }
  return {UpstreamLostCommand{arguments}, {}};
}

ParsedLine parseStatus(const Words& arguments) {
  if (arguments.empty()) return {StatusCommand{.json = false}, {}};
  if (arguments.size() == 1 && arguments[0] == "json") return {StatusCommand{.json = true}, {}};
  return wrong("'" + arguments[0] + "' is not accepted; write 'status' or 'status json'");
}

ParsedLine parseWait(const Words& arguments) {
  double seconds = -1;
  if (arguments.size() == 1) {
    const std::string& text = arguments[0];
    char* end = nullptr;
    seconds = std::strtod(text.c_str(), &end);
    const bool plain = text.find_first_not_of("0123456789.") == std::string::npos;
    if (!plain || *end != '\0') seconds = -1;
  }
  if (!(seconds >= 0 && seconds <= kLongestWaitSeconds)) {
    return wrong("give one number of seconds, from 0 to 86400, such as 'wait 2.5'");
  }
  constexpr double kMillisecondsPerSecond = 1000;
  return {WaitCommand{std::chrono::milliseconds(
              static_cast<std::chrono::milliseconds::rep>(seconds * kMillisecondsPerSecond))},
          {}};
}

/// What the argument at |place| stands for, which is one of two words; nothing for any other.
template <typename Value>
std::optional<Value> oneOf(const Words& arguments, std::size_t place,
                           std::pair<const char*, Value> one, std::pair<const char*, Value> other) {
  if (place >= arguments.size()) return std::nullopt;
  if (arguments[place] == one.first) return one.second;
  if (arguments[place] == other.first) return other.second;
  return std::nullopt;
}

/// |text| as a whole number that fits; nothing for anything else.
std::optional<int> wholeNumber(const std::string& text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// What is wrong with the first argument as an interface name; empty when it is one.
std::string wrongInterface(const Words& arguments) {
  if (arguments.empty()) return "name an interface, such as 'wwan0'";
  if (base::isInterfaceName(arguments[0])) return {};
  return base::noInterfaceName(arguments[0]);
}

ParsedLine parseWwan(const Words& arguments) {
  if (auto error = wrongInterface(arguments); !error.empty()) return wrong(error);
  const auto status = oneOf<ZanWwanStatus>(arguments, 1, {"connected", ZAN_WWAN_STATUS_CONNECTED},
                                           {"disconnected", ZAN_WWAN_STATUS_DISCONNECTED});
  if (!status || arguments.size() != 2)
    return wrong("write 'wwan IFACE connected' or 'wwan IFACE disconnected'");
  return {WwanCommand{arguments[0], *status}, {}};
}

ParsedLine parseApns(const Words& arguments) {
  if (auto error = wrongInterface(arguments); !error.empty()) return wrong(error);
  ApnsCommand command{arguments[0], {}};
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const auto apn = wholeNumber(arguments[i]);
    if (!apn) return wrong("'" + arguments[i] + "' is no APN number; 0 is the default APN");
    command.apns.push_back(static_cast<ZanApnType>(*apn));
  }
  return {command, {}};
}

ParsedLine parseTethering(const Words& arguments) {
  const auto state =
      oneOf<std::int32_t>(arguments, 0, {"on", kTetheringOn}, {"off", kTetheringOff});
  if (!state || arguments.size() != 1) return wrong("write 'tethering on' or 'tethering off'");
  return {TetheringCommand{*state}, {}};
}

ParsedLine parseDormancy(const Words& arguments) {
  if (auto error = wrongInterface(arguments); !error.empty()) return wrong(error);
  const auto status =
      oneOf<std::int32_t>(arguments, 1, {"dormant", kLinkDormant}, {"active", kLinkActive});
  if (!status || arguments.size() != 2)
    return wrong("write 'dormancy IFACE dormant' or 'dormancy IFACE active'");
  return {DormancyCommand{arguments[0], *status}, {}};
}

ParsedLine parseFilteringEnded(const Words& arguments) {
  if (auto error = wrongInterface(arguments); !error.empty()) {
    return wrong(error);
  }
  if (arguments.size() != 1) return wrong("name one interface, nothing else");
  return {FilteringEndedCommand{arguments[0]}, {}};
}

ParsedLine parseModemAnswer(const Words& arguments) {
  if (auto error = wrongInterface(arguments); !error.empty()) return wrong(error);
  const auto listen = oneOf<bool>(arguments, 1, {"listen", true}, {"install", false});
  const auto answer = listen && arguments.size() == 3 ? wholeNumber(arguments[2]) : std::nullopt;
  if (!answer) {
    return wrong("write 'modem-answer IFACE install|listen NUMBER'; 1 is success");
  }
  return {ModemAnswerCommand{arguments[0], *listen, *answer}, {}};
}

template <typename Plain>
ParsedLine parsePlain(const Words& arguments) {
  if (arguments.empty()) return {Plain{}, {}};
  return wrong("'" + arguments[0] + "' is one word too many; the command takes no argument");
}

struct Entry {
  const char* word;
  const char* arguments;
  const char* meaning;
  ParsedLine (*parse)(const Words& arguments);
};

constexpr Entry kCommands[] = {
    {"clients", "[MAC ...]", "the complete list of hotspot clients from now on", parseClients},
    {"upstream-lost", "ADDRESS ...", "upstream addresses that are gone", parseUpstreamLost},
    {"wwan", "IFACE connected|disconnected", "a mobile-data interface comes or goes", parseWwan},
    {"apns", "IFACE [APN ...]", "its access points from its next event on; 0 is the default",
     parseApns},
    {"tethering", "on|off", "tethering is switched", parseTethering},
    {"dormancy", "IFACE dormant|active", "the modem's link of the interface", parseDormancy},
    {"filtering-ended", "IFACE", "the modem has ended filtering", parseFilteringEnded},
    {"modem-answer", "IFACE install|listen N", "what the modem answers to filters; 1 is success",
     parseModemAnswer},
    {"status", "[json]", "clients, interfaces, privileges and counters", parseStatus},
    {"wait", "SECONDS", "pause before the next command", parseWait},
    {"help", "", "this list; also '?'", parsePlain<HelpCommand>},
    {"quit", "", "take the plug-in down and end; also 'exit'", parsePlain<QuitCommand>},
};

std::string acceptedWords() {
  std::string list;
  for (const Entry& entry : kCommands) list += (list.empty() ? "" : ", ") + std::string(entry.word);
  return list;
}

}  // namespace

ParsedLine parseCommand(std::string line) {
  // A NUL would end what is said of the line, and hide what follows it.
  std::replace(line.begin(), line.end(), '\0', '?');
  std::istringstream stream(line);
  std::string word;
  stream >> word;
  if (word == "?") word = "help";
  if (word == "exit") word = "quit";
  if (word.empty() || word.front() == '#') return {};
  Words arguments;
  for (std::string argument; stream >> argument;) arguments.push_back(argument);
  for (const Entry& entry : kCommands) {
    if (word != entry.word) continue;
    ParsedLine parsed = entry.parse(arguments);
    if (!parsed.error.empty()) parsed.error = word + ": " + parsed.error;
    return parsed;
  }
  return wrong("'" + word + "' is no command; accepted are: " + acceptedWords());
}

std::string commandHelp() {
  std::string text;
  for (const Entry& entry : kCommands) {
    std::string usage = std::string(entry.word) + " " + entry.arguments;
    usage.resize(std::max<std::size_t>(usage.size(), 35), ' ');
    text += "  " + usage + " " + entry.meaning + "\n";
  }
  return text;
}

}  // namespace zanhost
