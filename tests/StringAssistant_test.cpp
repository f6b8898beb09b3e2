#include <gtest/gtest.h>

#include <list>
#include <string>

#include <ostrelled/StringAssistant.h>

using SA = CStringAssistant;

TEST(StringAssistant, BufferConventionSizeQueryExactFitAndOneShort) {
  DWORD len = 0;
  EXPECT_TRUE(SA::getBaseStringFromSTLString("abc", nullptr, len));
  EXPECT_EQ(len, 4u);
  char buffer[8] = "zzzzzzz";
  len = 3;
  EXPECT_FALSE(SA::getBaseStringFromSTLString("abc", buffer, len));
  EXPECT_EQ(len, 3u);
  EXPECT_STREQ(buffer, "zzzzzzz");
  len = 4;
  EXPECT_TRUE(SA::getBaseStringFromSTLString("abc", buffer, len));
  EXPECT_STREQ(buffer, "abc");
  len = 8;
  EXPECT_TRUE(SA::getBaseStringFromSTLString("", buffer, len));
  EXPECT_EQ(len, 1u);
}

TEST(StringAssistant, ReplaceAllOrFirstWithoutRescanning) {
  EXPECT_EQ(SA::replaceSTLString("a.b.c", ".", "::", true), "a::b::c");
  EXPECT_EQ(SA::replaceSTLString("a.b.c", ".", "::", false), "a::b.c");
  EXPECT_EQ(SA::replaceSTLString("aaa", "a", "aa", true), "aaaaaa");
  EXPECT_EQ(SA::replaceSTLString("aaaa", "aa", "b", true), "bb");
  EXPECT_EQ(SA::replaceSTLString("abc", "", "x", true), "abc");
  EXPECT_EQ(SA::replaceSTLString("abc", "zz", "x", true), "abc");
}

TEST(StringAssistant, ComparisonsGiveSignOnly) {
  EXPECT_EQ(SA::compare("abc", "abd"), -1);
  EXPECT_EQ(SA::compare("b", "abc"), 1);
  EXPECT_EQ(SA::compare("abc", "abc"), 0);
  EXPECT_EQ(SA::compareNoCase("HeLLo", "hello"), 0);
  EXPECT_EQ(SA::compareNoCase("ab", "ABC"), -1);
  EXPECT_EQ(SA::compareNoCase("b", "A"), 1);
  EXPECT_EQ(SA::compareNoCase("\xE9", "a"), 1);  // high bytes order above ASCII
}

TEST(StringAssistant, TrimAndCaseChangeInPlace) {
  std::string s = " \t x y \r\n";
  EXPECT_EQ(SA::trimLeft(s), "x y \r\n");
  EXPECT_EQ(SA::trimRight(s), "x y");
  std::string blank = " \t ";
  EXPECT_EQ(SA::trim(blank), "");
  EXPECT_EQ(blank, "");
  std::string mixed = "aB1_\xE9";
  EXPECT_EQ(SA::upper(mixed), "AB1_\xE9");
  EXPECT_EQ(SA::lower(mixed), "ab1_\xE9");
  EXPECT_EQ(mixed, "ab1_\xE9");
}

TEST(StringAssistant, PrefixSuffixAndSplit) {
  EXPECT_TRUE(SA::startsWith("prefix", "pre"));
  EXPECT_TRUE(SA::startsWith("x", ""));
  EXPECT_FALSE(SA::startsWith("pr", "pre"));
  EXPECT_TRUE(SA::endsWith("file.txt", ".txt"));
  EXPECT_FALSE(SA::endsWith("txt", ".txt"));
  EXPECT_EQ(SA::split("a,,b,", ","), (std::list<std::string>{"a", "", "b", ""}));
  EXPECT_EQ(SA::split("a::b", "::"), (std::list<std::string>{"a", "b"}));
  EXPECT_EQ(SA::split("", ","), (std::list<std::string>{""}));
  EXPECT_EQ(SA::split("a,b", ""), (std::list<std::string>{"a,b"}));
}

TEST(StringAssistant, FormatHasNoLengthLimit) {
  EXPECT_EQ(SA::format("%d-%s", 7, "x"), "7-x");
  const std::string longText(5000, 'q');
  EXPECT_EQ(SA::format("<%s>", longText.c_str()), "<" + longText + ">");
  EXPECT_EQ(SA::formatV(nullptr, nullptr), "");
}

TEST(StringAssistant, PathsIdentifiersAndFileNames) {
  EXPECT_EQ(SA::fixFilePath("a\\b//c/", '/'), "a/b/c/");
  EXPECT_EQ(SA::fixFilePath("/x/y", '\\'), "\\x\\y");
  EXPECT_TRUE(SA::isIdentifier("_a1"));
  EXPECT_FALSE(SA::isIdentifier("1a"));
  EXPECT_FALSE(SA::isIdentifier(""));
  EXPECT_FALSE(SA::isIdentifier("a-b"));
  EXPECT_TRUE(SA::isFilename("name.txt"));
  EXPECT_FALSE(SA::isFilename(".."));
  EXPECT_FALSE(SA::isFilename("a/b"));
  EXPECT_FALSE(SA::isFilename(std::string("a\0b", 3)));
  EXPECT_FALSE(SA::isFilename(std::string(256, 'a')));
}
