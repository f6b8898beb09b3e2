#include <gtest/gtest.h>

#include <cstring>

#include <ostrelled/BStr.h>

namespace {

// A caller-built block: length word, then the bytes.
LPBSTRUNIT makeBlock(int len, const char* bytes) {
  LPBSTRUNIT block = new BSTR_UNIT[4 + (len > 0 ? len : 0)];
  std::memcpy(block, &len, 4);
  if (len > 0) std::memcpy(block + 4, bytes, len);
  return block;
}

struct Handle {
  bstr_handle* h = bstr_create();
  ~Handle() { bstr_destroy(h); }
};

}  // namespace

TEST(BStr, TextCountsItsTerminatorAndDataDoesNot) {
  Handle s;
  ASSERT_TRUE(bstr_set_text(s.h, "abc"));
  EXPECT_EQ(bstr_get_length(s.h), 4);
  EXPECT_EQ(std::memcmp(bstr_get_data(s.h), "abc", 4), 0);
  ASSERT_TRUE(bstr_set_text(s.h, ""));
  EXPECT_EQ(bstr_get_length(s.h), 1);
  ASSERT_TRUE(bstr_set_data(s.h, "abc", 3));
  EXPECT_EQ(bstr_get_length(s.h), 3);
  ASSERT_TRUE(bstr_set_data(s.h, "abc", 0));  // present and empty, not null
  ASSERT_NE(bstr_get_data(s.h), nullptr);
  EXPECT_EQ(bstr_get_length(s.h), 0);
  ASSERT_TRUE(bstr_set_data(s.h, nullptr, 5));
  EXPECT_EQ(bstr_get_data(s.h), nullptr);
  // negative lengths are refused and keep the value
  bstr_set_text(s.h, "keep");
  EXPECT_FALSE(bstr_set_data(s.h, "abc", -1));
  LPBSTRUNIT bad = makeBlock(-8, nullptr);
  EXPECT_FALSE(bstr_set_bstrunit(s.h, bad));
  delete[] bad;
  EXPECT_STREQ(bstr_get_data(s.h), "keep");
}

TEST(BStr, NullHandlesAreTolerated) {
  EXPECT_TRUE(bstr_set_text(nullptr, nullptr));
  EXPECT_FALSE(bstr_set_text(nullptr, "x"));
  EXPECT_EQ(bstr_get_data(nullptr), nullptr);
  EXPECT_EQ(bstr_get_length(nullptr), 0);
  EXPECT_EQ(bstr_detach_bstrunit(nullptr), nullptr);
  LPBSTRUNIT block = makeBlock(2, "hi");
  bstr_attach_bstrunit(nullptr, block);  // neither taken nor freed: still ours
  delete[] block;
  bstr_handle* live = bstr_create();
  bstr_destroy(live);
  EXPECT_EQ(live, nullptr);
  bstr_destroy(live);
}

TEST(BStr, SettingFromItselfEmptiesButOwnDataIsCopied) {
  Handle s;
  bstr_set_text(s.h, "abc");
  EXPECT_TRUE(bstr_set_bstr(s.h, s.h));  // the value is freed before it is read
  EXPECT_EQ(bstr_get_data(s.h), nullptr);
  bstr_set_text(s.h, "abc");
  EXPECT_TRUE(bstr_set_text(s.h, bstr_get_data(s.h)));  // its own bytes stay readable
  EXPECT_STREQ(bstr_get_data(s.h), "abc");
  CBStr text("xyz");
  CBStr& same = text;
  text = same;
  EXPECT_EQ(static_cast<const char*>(text), nullptr);
}

TEST(BStr, AttachTakesOwnershipAndDetachGivesItBack) {
  Handle s;
  LPBSTRUNIT block = makeBlock(3, "abc");
  bstr_attach_bstrunit(s.h, block);
  EXPECT_EQ(bstr_get_data(s.h), reinterpret_cast<char*>(block) + 4);  // not copied
  bstr_attach_bstrunit(s.h, block);  // the owned block again: kept, not freed
  EXPECT_EQ(bstr_detach_bstrunit(s.h), block);
  EXPECT_EQ(bstr_get_data(s.h), nullptr);
  CBStr owner;
  owner.attach(block);  // freed by owner's destructor
  EXPECT_EQ(owner.get_length(), 3);
  LPBSTRUNIT text = CBStr("hi").detach();  // outlives its CBStr
  EXPECT_STREQ(reinterpret_cast<char*>(text) + 4, "hi");
  delete[] text;
  // copies are deep
  CBStr original("one");
  CBStr copy(original);
  original = "two";
  EXPECT_STREQ(copy, "one");
}

TEST(BStr, EqualityComparesLengthWordAndDataBytes) {
  Handle text, data, other, empty1, empty2;
  bstr_set_text(text.h, "abc");
  bstr_set_data(data.h, "abc", 3);
  bstr_set_text(other.h, "abd");
  EXPECT_FALSE(bstr_equal_bstr(text.h, data.h));   // 4 bytes against 3
  EXPECT_FALSE(bstr_equal_bstr(text.h, other.h));  // the last data byte counts
  EXPECT_TRUE(bstr_equal_bstr(empty1.h, empty2.h));
  EXPECT_FALSE(bstr_equal_bstr(empty1.h, text.h));
  EXPECT_TRUE(bstr_equal_bstr(nullptr, nullptr));
  EXPECT_FALSE(bstr_equal_bstr(nullptr, empty1.h));
  LPBSTRUNIT block = makeBlock(3, "abc");
  EXPECT_TRUE(bstr_equal_bstrunit(data.h, block));
  EXPECT_FALSE(bstr_equal_bstrunit(empty1.h, block));
  EXPECT_FALSE(bstr_equal_bstrunit(nullptr, block));
  EXPECT_TRUE(CBStr(block) == CBStr("abc", 3));
  delete[] block;
}
