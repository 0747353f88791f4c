// The lab at a prompt, as a pipe drives it.
#include "lab/BuiltFile.h"
#include "lab/Process.h"
#include "tests/live/LiveTest.h"

namespace {

using testing::HasSubstr;

class Try : public LiveTest {
 protected:
  static base::ProgramRun type(const std::string& lines) {
    return lab::Process::run({lab::builtFile("demo/zantry")}, nullptr, lines);
  }
};

constexpr char kNothingOfA[] =
    "A  02:00:00:00:43:0a         0         0         0         0      0";
constexpr char kAllOfA[] = "A  02:00:00:00:43:0a         6         6         6         6     24";

TEST_F(Try, ShowsHowADepartedClientIsFlushedAndComesBack) {
  const auto left = type("A leaves\nwait 1\ntable\n");
  EXPECT_THAT(left.output, HasSubstr(kNothingOfA));

  const auto back = type("A leaves\nA returns\ntable\n");
  EXPECT_THAT(back.output, HasSubstr(kAllOfA));
}

TEST_F(Try, HandsTheHostItsCommandsAndEndsItInOrder) {
  const auto result = type("dormancy link dormant\nwait 2\nlink timer\nnonsense\nquit\n");
  EXPECT_TRUE(result.status.success()) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("s left"));
  EXPECT_THAT(result.output, HasSubstr("refused: 'nonsense' is no command"));
  EXPECT_THAT(result.output, HasSubstr("stopped: deinit_ct_mgr returned 0"));
}

}  // namespace
