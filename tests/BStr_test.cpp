#include <ostrelled/BStr.h>
#include "TestSupport.h"

// Each test starts with one empty handle.
class BStr : public testing::Test {
 protected:
  ~BStr() override { bstr_destroy(h); }
  bstr_handle* h = bstr_create();
};

TEST_F(BStr, LengthWordDependsOnTheSetterUsed) {
  ASSERT_TRUE(bstr_set_text(h, "abc"));
  EXPECT_EQ(bstr_get_length(h), 4);
  ASSERT_TRUE(bstr_set_data(h, "abc", 0));  // present and empty, not null
  EXPECT_NE(bstr_get_data(h), nullptr);
  bstr_set_text(h, "keep");
  EXPECT_FALSE(bstr_set_data(h, "abc", -1));
  LPBSTRUNIT bad = CBStr("x").detach();
  const int negative = -8;
  std::memcpy(bad, &negative, 4);
  EXPECT_FALSE(bstr_set_bstrunit(h, bad));
  delete[] bad;
  EXPECT_STREQ(bstr_get_data(h), "keep");
}

TEST_F(BStr, SettingFromItselfEmptiesButOwnBytesAreCopied) {
  bstr_set_text(h, "abc");
  EXPECT_TRUE(bstr_set_text(h, bstr_get_data(h)));  // its own bytes stay readable
  EXPECT_STREQ(bstr_get_data(h), "abc");
  EXPECT_TRUE(bstr_set_bstr(h, h));  // the value is freed before it is read (intended)
  EXPECT_EQ(bstr_get_data(h), nullptr);
}

TEST_F(BStr, OwnershipMovesOnlyThroughAttachOrDetach) {
  LPBSTRUNIT block = CBStr("abc").detach();  // outlives its CBStr
  bstr_attach_bstrunit(nullptr, block);      // no handle: the block stays ours
  bstr_attach_bstrunit(h, block);
  EXPECT_EQ(bstr_get_data(h), reinterpret_cast<char*>(block) + 4);  // not copied
  bstr_attach_bstrunit(h, block);  // the owned block again: kept, not freed
  EXPECT_EQ(bstr_detach_bstrunit(h), block);
  EXPECT_EQ(bstr_get_data(h), nullptr);
  CBStr owner;
  owner.attach(block);  // freed by owner's destructor
  CBStr copy(owner);
  owner = "two";
  EXPECT_STREQ(copy, "abc");
}

TEST_F(BStr, EqualityComparesTheWholeRecord) {
  CBStr text("abc"), data("abc", 3), other("abd"), empty;
  EXPECT_FALSE(text == data);   // 4 bytes against 3
  EXPECT_FALSE(text == other);  // the last data byte counts
  EXPECT_FALSE(empty == text);
  EXPECT_TRUE(empty == CBStr());
  EXPECT_TRUE(bstr_equal_bstr(nullptr, nullptr));
  EXPECT_FALSE(bstr_equal_bstr(nullptr, h));
  LPBSTRUNIT block = CBStr("abc", 3).detach();
  EXPECT_TRUE(data == block);
  delete[] block;
}
