// The plain reading of the table's text and of addresses, which the plug-in is compared with.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ctmgr/ZanConnTrackFilter.h"

using Texts = std::vector<std::string>;

/// The result of a line or a table, and the records found, each as textOf() shows it.
using Reading = std::pair<int, Texts>;
std::string textOf(const ZanConnTrackFilter_s& record);

/// Reads a line for the source |clients|, and the translated address |lost| unless it is null. Like
/// the parser it cuts a token that is longer than any kernel prints.
Reading readLine(const std::string& line, const Texts& clients, const std::string* lost);

/// An address in the one form in which it is compared: dotted, or eight groups of four digits.
std::string addressText(int family, const std::uint8_t* address);
