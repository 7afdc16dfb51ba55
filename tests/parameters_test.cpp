#include "parameters.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

using kt::Parameters;

std::string InvalidArgumentText(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "no exception";
}

TEST(ParametersTest, ParsingTable) {
  EXPECT_TRUE(Parameters("").empty());
  EXPECT_TRUE(Parameters(";;;").empty());

  const Parameters ab("a=1;b=2.5");
  EXPECT_EQ(ab.size(), 2u);
  EXPECT_EQ(ab.at("a"), "1");
  EXPECT_EQ(ab.at("b"), "2.5");

  const Parameters skipped(";;a=1;;b=2;");
  EXPECT_EQ(skipped.size(), 2u);
  EXPECT_EQ(skipped.at("a"), "1");
  EXPECT_EQ(skipped.at("b"), "2");

  EXPECT_EQ(Parameters("a==1").at("a"), "1");
  const Parameters framed("=a=1=");
  EXPECT_EQ(framed.size(), 1u);
  EXPECT_EQ(framed.at("a"), "1");

  const Parameters blank("a=1; b=2");
  EXPECT_EQ(blank.size(), 2u);
  EXPECT_FALSE(blank.Exists("b"));
  EXPECT_EQ(blank.at(" b"), "2");
  EXPECT_EQ(blank.Get<int>("b", 7), 7);

  EXPECT_EQ(Parameters("a=1;a=2").at("a"), "1");
  EXPECT_EQ(Parameters("a=1;a=2").size(), 1u);
}

TEST(ParametersTest, MalformedItemsAreRefusedAsAWhole) {
  for (const char* text : {"a=1=2", "a", "a=", "a=1; ", "x=1;a", "="}) {
    EXPECT_EQ(InvalidArgumentText([&] { Parameters p(text); }), "Invalid format") << text;
  }
}

TEST(ParametersTest, IntegerConversions) {
  const Parameters p("a= 42xyz;b=0x10;c=1.9;d=xyz;e=-5;f=99999999999");
  EXPECT_EQ(p.Get<int>("a"), 42);
  EXPECT_EQ(p.Get<int>("b"), 0);
  EXPECT_EQ(p.Get<int>("c"), 1);
  EXPECT_EQ(p.Get<int>("e"), -5);
  EXPECT_EQ(InvalidArgumentText([&] { p.Get<int>("d"); }), "Invalid format");
  EXPECT_EQ(InvalidArgumentText([&] { p.Get<int>("f"); }), "Invalid format");
  EXPECT_EQ(p.Get<unsigned int>("a", 3u), 42u);
}

TEST(ParametersTest, FloatingPointAndStringConversions) {
  const Parameters p("x=1e3;y=.5;z=0.3;s=on off;blank=   ;n=abc");
  EXPECT_EQ(p.Get<double>("x"), 1000.0);
  EXPECT_EQ(p.Get<double>("y"), 0.5);
  EXPECT_EQ(p.Get<float>("z", 1.0f), 0.3f);
  EXPECT_EQ(p.Get<std::string>("s"), "on");
  EXPECT_EQ(p.Get<std::string>("missing", "true"), "true");
  EXPECT_EQ(InvalidArgumentText([&] { p.Get<std::string>("blank"); }), "Invalid format");
  EXPECT_EQ(InvalidArgumentText([&] { p.Get<double>("n", 2.0); }), "Invalid format");
}

TEST(ParametersTest, AbsentKeys) {
  const Parameters p("a=1");
  EXPECT_EQ(InvalidArgumentText([&] { p.Get<int>("b"); }), "Key not found");
  EXPECT_EQ(p.Get<int>("b", 9), 9);
  EXPECT_EQ(p.Get<double>("A", 2.5), 2.5);  // keys are case-sensitive
}

TEST(ParametersTest, SetWritesTheDecimalTextAndReplaces) {
  Parameters p("a=1");
  p.Set<int>("k", -5);
  EXPECT_EQ(p.at("k"), "-5");
  EXPECT_EQ(p.Get<int>("k"), -5);
  p.Set<int>("a", 40);
  EXPECT_EQ(p.at("a"), "40");
  EXPECT_EQ(p.size(), 2u);
}

}  // namespace
