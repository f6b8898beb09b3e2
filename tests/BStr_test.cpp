// The CBStr class; the flat functions are checked against a model by fuzz/bstr_fuzz.cpp.
#include "TestSupport.h"

TEST(CBStr, CopiesOwnTheirBytesAndEqualityComparesTheWholeRecord) {
  LPBSTRUNIT block = CBStr("abc").detach();  // outlives its CBStr
  bstr_attach_bstrunit(nullptr, block);      // no handle: the block stays ours
  CBStr owner, data("abc", 3);
  owner.attach(block);  // freed by owner's destructor
  CBStr copy(owner);
  owner = "two";
  EXPECT_STREQ(copy, "abc");
  EXPECT_FALSE(copy == data) << "4 bytes against 3";
  EXPECT_FALSE(copy == CBStr("abd")) << "the last data byte counts";
  EXPECT_FALSE(CBStr() == copy);
  EXPECT_TRUE(CBStr() == CBStr());
  LPBSTRUNIT unit = CBStr("abc", 3).detach();
  EXPECT_TRUE(data == unit);
  delete[] unit;
}
