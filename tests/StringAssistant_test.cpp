#include <gtest/gtest.h>

#include <list>
#include <string>

#include <ostrelled/StringAssistant.h>

using SA = CStringAssistant;
using Pieces = std::list<std::string>;

TEST(StringAssistant, ReplaceCompareAndSplit) {
  EXPECT_EQ(SA::replaceSTLString("a.b.c", ".", "::", true), "a::b::c");
  EXPECT_EQ(SA::replaceSTLString("a.b.c", ".", "::", false), "a::b.c");
  EXPECT_EQ(SA::replaceSTLString("aaa", "a", "aa", true), "aaaaaa");  // no rescanning
  EXPECT_EQ(SA::replaceSTLString("abc", "", "x", true), "abc");
  EXPECT_EQ(SA::compare("abc", "abd"), -1);
  EXPECT_EQ(SA::compareNoCase("HeLLo", "hello"), 0);
  EXPECT_EQ(SA::compareNoCase("ab", "ABC"), -1);
  EXPECT_EQ(SA::compareNoCase("\xE9", "a"), 1);  // high bytes order above ASCII
  EXPECT_EQ(SA::split("a,,b,", ","), (Pieces{"a", "", "b", ""}));
  EXPECT_EQ(SA::split("a::b", "::"), (Pieces{"a", "b"}));
  EXPECT_EQ(SA::split("", ","), (Pieces{""}));
  EXPECT_EQ(SA::split("a,b", ""), (Pieces{"a,b"}));
}

TEST(StringAssistant, TrimCaseAndFormat) {
  std::string s = " \t x y \r\n";
  EXPECT_EQ(SA::trimLeft(s), "x y \r\n");
  EXPECT_EQ(SA::trimRight(s), "x y");
  std::string blank = " \t ";
  EXPECT_EQ(SA::trim(blank), "");
  std::string mixed = "aB1_\xE9";
  EXPECT_EQ(SA::upper(mixed), "AB1_\xE9");
  EXPECT_EQ(mixed, "AB1_\xE9");
  EXPECT_TRUE(SA::startsWith("prefix", "pre") && SA::startsWith("x", "") && SA::endsWith("f.txt", ".txt"));
  EXPECT_FALSE(SA::startsWith("pr", "pre") || SA::endsWith("txt", ".txt"));
  const std::string longText(5000, 'q');
  EXPECT_EQ(SA::format("<%s|%d>", longText.c_str(), 7), "<" + longText + "|7>");
}

TEST(StringAssistant, PathsIdentifiersAndFileNames) {
  EXPECT_EQ(SA::fixFilePath("a\\b//c/", '/'), "a/b/c/");
  EXPECT_EQ(SA::fixFilePath("/x/y", '\\'), "\\x\\y");
  EXPECT_TRUE(SA::isIdentifier("_a1"));
  EXPECT_FALSE(SA::isIdentifier("1a") || SA::isIdentifier("") || SA::isIdentifier("a-b"));
  EXPECT_TRUE(SA::isFilename("name.txt"));
  EXPECT_FALSE(SA::isFilename("..") || SA::isFilename("a/b") || SA::isFilename(std::string("a\0b", 3)) ||
               SA::isFilename(std::string(256, 'a')));
}
