#include "ctmgr/ConntrackText.h"

#include <cstddef>
#include <cstdio>

#include "ctmgr/Decimal.h"

// Each reader takes where to read and returns where it ended, or null if the text has something
// else there.
namespace {

/// Those of isspace(3).
bool isBlank(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

/// Neither a blank nor the end of the text.
bool isOfToken(char character) {
  return static_cast<unsigned char>(character) > ' ' || (character != '\0' && !isBlank(character));
}

const char* skipBlanks(const char* text) {
  while (isBlank(*text)) ++text;
  return text;
}

/// |name|, behind any blanks.
const char* readName(const char* text, const char* name) {
  text = skipBlanks(text);
  for (; *name != '\0'; ++name, ++text) {
    if (*text != *name) return nullptr;
  }
  return text;
}

/// A conversion "%s" whose width is that of |token|.
template <std::size_t size>
const char* readToken(const char* text, char (&token)[size]) {
  text = skipBlanks(text);
  if (*text == '\0') return nullptr;
  std::size_t length = 0;
  for (; length < size - 1 && isOfToken(*text); ++text) token[length++] = *text;
  token[length] = '\0';
  return text;
}

/// A conversion "%hu".
const char* readPort(const char* text, std::uint16_t& port) {
  constexpr std::ptrdiff_t kMostDigits = 9;  // what an unsigned int holds
  const char* end = text;
  const unsigned int value = readDecimal(end, kMostDigits);
  if (end != text && !isDigit(*end)) {
    port = static_cast<std::uint16_t>(value);
    return end;
  }
  // Blanks, a sign, no number, or one that is too long for a port: what the library makes of it.
  int length = 0;
  return std::sscanf(text, "%hu%n", &port, &length) == 1 ? text + length : nullptr;
}

}  // namespace

void readLineStart(const char* line, LineStart& start) {
  if ((line = readToken(line, start.layer3Name)) == nullptr) return;
  if ((line = readToken(line, start.layer3Number)) == nullptr) return;
  if ((line = readToken(line, start.layer4Name)) == nullptr) return;
  readToken(line, start.layer4Number);
}

const char* readSource(const char* tuple, AddressField& source) {
  const char* at = readName(tuple, "src=");
  return at == nullptr ? nullptr : readToken(at, source);
}

void readDestination(const char* sourceEnd, DestinationText& destination) {
  const char* at = sourceEnd;
  if (at != nullptr) at = readName(at, "dst=");
  if (at != nullptr) at = readToken(at, destination.dst);
  if (at != nullptr) at = readName(at, "sport=");
  if (at != nullptr) at = readPort(at, destination.sport);
  if (at != nullptr) at = readName(at, "dport=");
  if (at != nullptr) readPort(at, destination.dport);
}
