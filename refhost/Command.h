// The commands that tell the reference host what no kernel can report on its own machine.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>
#include <vector>

/// The complete hotspot client list, as MAC address texts in lower case.
struct ClientsCommand {
  std::vector<std::string> clients;
};

/// Upstream addresses that are gone.
struct UpstreamLostCommand {
  std::vector<std::string> addresses;
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
                             HelpCommand, QuitCommand>;

/// What a line says: a command, or what is wrong with it, or nothing (blank lines and those that
/// begin with '#').
struct ParsedLine {
  std::optional<Command> command;
  std::string error;  ///< names the line's first word and what is accepted; empty without error
};

[[nodiscard]] ParsedLine parseCommand(const std::string& line);

/// Every command with its arguments and meaning, a line each.
[[nodiscard]] std::string commandHelp();
