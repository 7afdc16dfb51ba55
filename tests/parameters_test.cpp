// The parameter string: splitting, refusals and typed reading.
#include <gtest/gtest.h>

#include "parameters.h"

namespace {

using kt::Parameters;

TEST(ParametersTest, SplitsIntoFirstWinsPairs) {
  EXPECT_TRUE(Parameters(";;;").empty());
  const Parameters p(";;a=1;;b==2.5;=c=x=;a=3; d=4");
  EXPECT_EQ(p, (std::map<std::string, std::string>{{"a", "1"}, {"b", "2.5"}, {"c", "x"}, {" d", "4"}}));
  for (const char* text : {"a=1=2", "a", "a=", "a=1; ", "x=1;a", "="}) {
    try {
      Parameters bad(text);
      ADD_FAILURE() << text;
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "Invalid format") << text;
    }
  }
}

TEST(ParametersTest, TypedReading) {
  Parameters p("a= 42xyz;b=0x10;c=1.9;e=-5;f=99999999999;x=1e3;z=0.3;s=on off;blank=   ;n=abc");
  EXPECT_EQ(p.Get<int>("a"), 42);
  EXPECT_EQ(p.Get<int>("b"), 0);
  EXPECT_EQ(p.Get<int>("c"), 1);
  EXPECT_EQ(p.Get<int>("e", 3), -5);
  EXPECT_EQ(p.Get<double>("x"), 1000.0);
  EXPECT_EQ(p.Get<float>("z", 1.0f), 0.3f);
  EXPECT_EQ(p.Get<std::string>("s"), "on");
  EXPECT_EQ(p.Get<int>("missing", 9), 9);
  for (const char* key : {"f", "blank", "n"}) EXPECT_THROW(p.Get<int>(key, 1), std::invalid_argument) << key;
  try {
    p.Get<int>("missing");
    ADD_FAILURE();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "Key not found");
  }
  p.Set<int>("a", -40);
  EXPECT_EQ(p.at("a"), "-40");
}

}  // namespace
