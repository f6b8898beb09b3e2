#include <list>

#include "TestSupport.h"

using SA = CStringAssistant;
using Pieces = std::list<std::string>;

TEST(StringAssistant, SplitKeepsEmptyPieces) {
  EXPECT_EQ(SA::replaceSTLString("a.b.c", ".", "::", true), "a::b::c");
  EXPECT_EQ(SA::replaceSTLString("a.b.c", ".", "::", false), "a::b.c");
  EXPECT_EQ(SA::replaceSTLString("aaa", "a", "aa", true), "aaaaaa");  // no rescanning
  EXPECT_EQ(SA::replaceSTLString("abc", "", "x", true), "abc");
  EXPECT_EQ(SA::split("a,,b,", ","), (Pieces{"a", "", "b", ""}));
  EXPECT_EQ(SA::split("a::b", "::"), (Pieces{"a", "b"}));
  EXPECT_EQ(SA::split("", ","), (Pieces{""}));
  EXPECT_EQ(SA::split("a,b", ""), (Pieces{"a,b"}));
}

TEST(StringAssistant, FormatWorksAtAnyLength) {
  std::string s = " \t x y \r\n";
  EXPECT_EQ(SA::trimLeft(s), "x y \r\n");
  EXPECT_EQ(SA::trimRight(s), "x y");
  std::string mixed = "aB1_\xE9";
  EXPECT_EQ(SA::upper(mixed), "AB1_\xE9");  // high bytes are not letters
  const std::string longText(5000, 'q');
  EXPECT_EQ(SA::format("<%s|%d>", longText.c_str(), 7), "<" + longText + "|7>");
}
