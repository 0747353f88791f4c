#include "refhost/Command.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <sstream>

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
  if (arguments.empty()) return {StatusCommand{false}, {}};
  if (arguments.size() == 1 && arguments[0] == "json") return {StatusCommand{true}, {}};
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
    {"status", "[json]", "clients, neighbours and counters", parseStatus},
    {"wait", "SECONDS", "pause before the next command", parseWait},
    {"help", "", "this list", parsePlain<HelpCommand>},
    {"quit", "", "take the plug-in down and end", parsePlain<QuitCommand>},
};

std::string acceptedWords() {
  std::string list;
  for (const Entry& entry : kCommands) list += (list.empty() ? "" : ", ") + std::string(entry.word);
  return list;
}

}  // namespace

ParsedLine parseCommand(const std::string& line) {
  std::istringstream stream(line);
  std::string word;
  stream >> word;
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
    usage.resize(std::max<std::size_t>(usage.size(), 27), ' ');
    text += "  " + usage + " " + entry.meaning + "\n";
  }
  return text;
}
