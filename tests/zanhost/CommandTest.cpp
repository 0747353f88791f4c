// What the host does with a line that says no command.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "refhost/zanhost/Command.h"
#include "refhost/zanhost/CommandConsole.h"

namespace zanhost {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(Command, AWrongLineIsNamedAndChangesNothing) {
  framework::EventLoop loop;
  std::vector<std::string> errors;
  int carriedOut = 0;
  CommandConsole console(
      loop, [&](const Command&) { ++carriedOut; },
      [&](const std::string& error) { errors.push_back(error); });
  for (const char* wrong : {"bogus", "clients 02:00", "wwan w/0 connected"}) console.add(wrong);
  while (!console.finished()) loop.turn(-1);
  EXPECT_THAT(errors, ElementsAre(HasSubstr("'bogus'"), HasSubstr("'02:00'"), HasSubstr("'w/0'")));
  EXPECT_EQ(carriedOut, 0);
}

}  // namespace
}  // namespace zanhost
