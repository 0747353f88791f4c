// System properties from the command line and from files.
#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <string>

#include "host/Properties.h"
#include "refhost/framework/Properties.h"

namespace framework {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::Pointee;

TEST(Properties, TakesAssignmentsAndSaysWhatIsWrongWithOthers) {
  PropertyStore store;
  const std::string longest(kPropertyValueMax - 1, 'x');
  for (const auto& right : {"a.b=1=2"s, "empty="s, "name=a b"s, "longest=" + longest}) {
    EXPECT_FALSE(store.assign(right)) << right;
  }
  for (const auto& wrong : {"name only"s, "=value"s, "name = 1"s, "longest=x" + longest}) {
    EXPECT_TRUE(store.assign(wrong)) << wrong;
  }
  EXPECT_THAT(store.find("longest"), Pointee(longest));
  EXPECT_THAT(store.find("a.b"), Pointee("1=2"s));
}

TEST(Properties, TakesNothingFromAFileWithAMistake) {
  std::string path = testing::TempDir() + "/propertiesXXXXXX";
  close(mkstemp(path.data()));
  PropertyStore store;
  std::ofstream(path) << "# comment\n\na=1\n";
  EXPECT_FALSE(store.load(path));
  std::ofstream(path) << "a=2\nmistake\n";
  EXPECT_THAT(store.load(path).value_or(""), HasSubstr(":2: 'mistake'"));
  EXPECT_THAT(store.find("a"), Pointee("1"s));
  unlink(path.c_str());
  EXPECT_TRUE(store.load(path)) << "no such file";
}

TEST(Properties, PropertyGetFallsBackAndStaysInItsBuffer) {
  ASSERT_FALSE(PropertyStore::instance().assign("test.set=on"));
  const auto get = [](const char* key, const char* fallback) {
    std::array<char, kPropertyValueMax> value{};
    const int length = property_get(key, value.data(), fallback);
    return std::to_string(length) + value.data();
  };
  EXPECT_EQ(get("test.set", "off"), "2on");
  EXPECT_EQ(get("test.unset", "off"), "3off");
  EXPECT_EQ(get("test.unset", nullptr), "0");
  const std::string most(kPropertyValueMax - 1, 'x');
  EXPECT_EQ(get("test.unset", (most + "xyz").c_str()), std::to_string(most.size()) + most);
}

}  // namespace
}  // namespace framework
