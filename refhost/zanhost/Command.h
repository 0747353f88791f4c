// The commands that tell the reference host what no kernel can report on its own machine.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/ZanDsmEvents.h"

namespace zanhost {

/// The complete hotspot client list, as MAC address texts in lower case.
struct ClientsCommand {
  std::vector<std::string> clients;
};

/// Upstream addresses that are gone.
struct UpstreamLostCommand {
  std::vector<std::string> addresses;
};

/// A mobile-data interface is connected, or not.
struct WwanCommand {
  std::string ifaceName;
  ZanWwanStatus status;
};

/// The access points that an interface is up for.
struct ApnsCommand {
  std::string ifaceName;
  std::list<ZanApnType> apns;
};

struct TetheringCommand {
  std::int32_t state;  ///< kTetheringOn or kTetheringOff
};

/// The modem's link of an interface becomes dormant or active.
struct DormancyCommand {
  std::string ifaceName;
  std::int32_t status;  ///< kLinkDormant or kLinkActive
};

/// The modem has ended filtering on an interface.
struct FilteringEndedCommand {
  std::string ifaceName;
};

/// What the modem answers from now on when filters are to be installed; 1 is success.
struct ModemAnswerCommand {
  std::string ifaceName;
  bool listenFilters;
  int answer;
};

struct StatusCommand {
  bool json;
};

/// A pause before the next command.
struct WaitCommand {
  std::chrono::milliseconds time;
};

struct HelpCommand {};

struct QuitCommand {};

using Command = std::variant<ClientsCommand, UpstreamLostCommand, StatusCommand, WaitCommand,
                             HelpCommand, QuitCommand, WwanCommand, ApnsCommand, TetheringCommand,
                             DormancyCommand, FilteringEndedCommand, ModemAnswerCommand>;

/// What a line says: a command, or what is wrong with it, or nothing (blank lines and those that
/// begin with '#').
struct ParsedLine {
  std::optional<Command> command;
  std::string error;  ///< names the line's first word and what is accepted; empty without error
};

/// Takes a NUL for a '?'.
[[nodiscard]] ParsedLine parseCommand(std::string line);

/// Every command with its arguments and meaning, a line each.
[[nodiscard]] std::string commandHelp();

}  // namespace zanhost
