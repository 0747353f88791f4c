#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <string>

#include "host/Properties.h"
#include "refhost/Properties.h"

namespace {

TEST(Properties, TakesAssignmentsAndSaysWhatIsWrongWithOthers) {
  PropertyStore store;
  EXPECT_FALSE(store.assign("a.b=1=2"));
  ASSERT_NE(store.find("a.b"), nullptr);
  EXPECT_EQ(*store.find("a.b"), "1=2");
  EXPECT_FALSE(store.assign("empty="));
  EXPECT_FALSE(store.assign("longest=" + std::string(kPropertyValueMax - 1, 'x')));
  EXPECT_TRUE(store.assign("longer=" + std::string(kPropertyValueMax, 'x')));
  EXPECT_TRUE(store.assign("name only"));
  EXPECT_TRUE(store.assign("=value"));
  EXPECT_TRUE(store.assign("name = 1")) << "would set 'name '";
  EXPECT_FALSE(store.assign("name=a b"));
  EXPECT_EQ(store.find("longer"), nullptr);
}

TEST(Properties, TakesNothingFromAFileWithAMistake) {
  std::string path = testing::TempDir() + "/propertiesXXXXXX";
  close(mkstemp(path.data()));
  PropertyStore store;
  std::ofstream(path) << "# comment\n\na=1\n";
  EXPECT_FALSE(store.load(path));
  std::ofstream(path) << "a=2\nmistake\n";
  const auto wrong = store.load(path);
  ASSERT_TRUE(wrong);
  EXPECT_NE(wrong->find(":2: 'mistake'"), std::string::npos) << *wrong;
  EXPECT_EQ(*store.find("a"), "1");
  unlink(path.c_str());
  EXPECT_TRUE(store.load(path)) << "no such file";
}

TEST(Properties, PropertyGetFallsBackAndStaysInItsBuffer) {
  std::array<char, kPropertyValueMax> value{};
  ASSERT_FALSE(PropertyStore::instance().assign("test.set=on"));
  EXPECT_EQ(property_get("test.set", value.data(), "off"), 2);
  EXPECT_STREQ(value.data(), "on");
  EXPECT_EQ(property_get("test.unset", value.data(), "off"), 3);
  EXPECT_STREQ(value.data(), "off");
  EXPECT_EQ(property_get("test.unset", value.data(), nullptr), 0);
  EXPECT_STREQ(value.data(), "");
  const std::string tooLong(2 * kPropertyValueMax, 'x');
  EXPECT_EQ(property_get("test.unset", value.data(), tooLong.c_str()),
            static_cast<int>(kPropertyValueMax) - 1);
}

}  // namespace
