#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <ostrelled/Variant.h>
#include <ostrelled/VariantWrapper.h>

namespace {

// A read object that counts its final releases, so tests can see when it dies.
class CountedRead : public CVariantRead {
 public:
  explicit CountedRead(std::atomic<int>* finalReleases) : m_pFinalReleases(finalReleases) {}

 protected:
  void onFinalRelease() override { m_pFinalReleases->fetch_add(1); }

 private:
  std::atomic<int>* m_pFinalReleases;
};

// A handle in the given mode over a borrowed variant, with both interfaces taken out
// first (so that the mode hides neither).
struct Wrapped {
  Wrapped(TVARIANT* value, bool bAllowRead, bool bAllowWrite) : handle(variant_wrapper_create()) {
    variant_wrapper_set_mode(handle, true, true);
    read = variant_wrapper_get_variantread(handle);
    write = variant_wrapper_get_variantwrite(handle);
    variant_wrapper_set_mode(handle, bAllowRead, bAllowWrite);
    variant_wrapper_set_wrapper_value(handle, value, false);
  }
  ~Wrapped() {
    read->releaseRef();
    write->releaseRef();
    variant_wrapper_destroy(handle);
  }
  variant_wrapper_handle* handle;
  IVariantRead* read;
  IVariantWrite* write;
};

}  // namespace

TEST(VariantWrapper, ModeDecidesOnlyWhichInterfacesAreHandedOut) {
  variant_wrapper_handle* fresh = variant_wrapper_create();
  IVariantRead* read = variant_wrapper_get_variantread(fresh);
  EXPECT_NE(read, nullptr);
  EXPECT_EQ(variant_wrapper_get_variantwrite(fresh), nullptr);  // a new handle is read-only
  read->releaseRef();
  variant_wrapper_destroy(fresh);
  EXPECT_EQ(fresh, nullptr);

  CVariant value(7);
  Wrapped w(&value, false, true);
  EXPECT_EQ(variant_wrapper_get_variantread(w.handle), nullptr);
  // Interfaces already out, and the handle's own type calls, ignore the mode (intended).
  variant_wrapper_set_mode(w.handle, false, false);
  int got = 0;
  EXPECT_TRUE(w.write->setValue(9, true) && w.read->getValue(got));
  EXPECT_EQ(got, 9);
  EXPECT_TRUE(variant_wrapper_set_type(w.handle, "double"));
  EXPECT_EQ(CVariantHelper::getType(w.read), "double");
}

TEST(VariantWrapper, WithoutAVariantEveryOperationFails) {
  Wrapped w(nullptr, true, true);
#define OSTRELLED_EXPECT_NO_VALUE(name, type, tag, member, format, typeName) \
  {                                                                        \
    type value{};                                                          \
    EXPECT_FALSE(w.read->getValue(value) || w.write->setValue(value, true)) << #name; \
  }
  OSTRELLED_SCALAR_TYPES(OSTRELLED_EXPECT_NO_VALUE)
#undef OSTRELLED_EXPECT_NO_VALUE
  DWORD len = 0;
  EXPECT_FALSE(w.read->getValue(nullptr, len) || w.read->getType(nullptr, len));
  EXPECT_FALSE(w.write->setValue("text", true) || w.write->setType("int"));
  EXPECT_FALSE(variant_wrapper_get_type(w.handle, nullptr, len) || variant_wrapper_set_type(w.handle, "int"));
  EXPECT_EQ(len, 0u);
  EXPECT_FALSE(variant_wrapper_get_type(nullptr, nullptr, len) || variant_wrapper_set_type(nullptr, "int"));
  EXPECT_EQ(variant_wrapper_get_variantread(nullptr), nullptr);
  EXPECT_EQ(variant_wrapper_get_wrapper_value(nullptr), nullptr);
  EXPECT_EQ(variant_wrapper_clone(nullptr), nullptr);
}

TEST(VariantWrapper, QueryInterfaceAnswersOnlyToItsOwnNames) {
  Wrapped w(nullptr, true, true);  // each interface: the handle's reference plus ours
  struct Row {
    IBase* object;
    const char* name;
    bool found;
  } rows[] = {{w.read, "IBase", true},         {w.read, "IVariantRead", true},   {w.read, "IVariantWrite", false},
              {w.write, "IBase", true},        {w.write, "IVariantWrite", true}, {w.write, "IVariantRead", false},
              {w.read, "ivariantread", false}, {w.read, "IVariant", false},      {w.read, nullptr, false}};
  for (const Row& row : rows) {
    void* found = &w;
    EXPECT_EQ(row.object->queryInterface(row.name, &found), row.found) << (row.name ? row.name : "null");
    EXPECT_EQ(found, row.found ? static_cast<void*>(row.object) : &w);
    EXPECT_EQ(row.object->releaseRef(), row.found ? 2u : 1u);  // a hit added one reference
    if (!row.found) row.object->addRef();
  }
  EXPECT_FALSE(w.read->queryInterface("IBase", nullptr));
}

TEST(VariantWrapper, InterfacesLiveWhileAnyoneHoldsAReference) {
  CVariant value(3);
  variant_wrapper_handle* handle = variant_wrapper_create();
  variant_wrapper_set_wrapper_value(handle, &value, false);
  IVariantRead* read = variant_wrapper_get_variantread(handle);
  EXPECT_EQ(variant_wrapper_get_variantread(handle), read);
  EXPECT_EQ(read->releaseRef(), 2u);
  variant_wrapper_destroy(handle);  // the interface outlives it and, over a borrowed variant, still reads
  int got = 0;
  EXPECT_TRUE(read->getValue(got));
  EXPECT_EQ(got, 3);
  EXPECT_EQ(read->releaseRef(), 0u);

  std::atomic<int> finalReleases{0};
  {
    CReference<CVariantRead> reference;
    EXPECT_TRUE(reference.nil());
    reference = new CountedRead(&finalReleases);  // adopts the count of 1
    CReference<CVariantRead> copy(reference);     // a copy holds a reference of its own
    EXPECT_EQ(copy->addRef(), 3u);
    copy->releaseRef();
    reference = new CountedRead(&finalReleases);  // the first object keeps only the copy's
    EXPECT_EQ(finalReleases.load(), 0);
    copy.release();
    EXPECT_EQ(finalReleases.load(), 1);
  }
  EXPECT_EQ(finalReleases.load(), 2);
}

TEST(VariantWrapper, ReferenceCountsHoldUnderConcurrentUse) {
  constexpr int kThreads = 8;
  std::atomic<int> finalReleases{0};
  CVariantRead* object = new CountedRead(&finalReleases);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([object] {
      void* self = nullptr;
      for (int i = 0; i < 20000; ++i) {
        object->queryInterface("IBase", &self);
        object->releaseRef();
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(object->addRef(), 2u);

  // kThreads owners drop their references at once: exactly one of them sees zero.
  for (int i = 2; i < kThreads; ++i) object->addRef();
  std::atomic<int> sawZero{0};
  std::atomic<bool> go{false};
  threads.clear();
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&] {
      while (!go.load()) std::this_thread::yield();
      if (object->releaseRef() == 0) sawZero.fetch_add(1);
    });
  go.store(true);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(sawZero.load(), 1);
  EXPECT_EQ(finalReleases.load(), 1);
}

TEST(VariantWrapper, BorrowSharesTheVariantWhileCopiesAndClonesOwnTheirs) {
  CVariant value("original");
  Wrapped borrowing(&value, true, true);
  EXPECT_TRUE(borrowing.write->setValue(1, true));
  EXPECT_EQ(value.vt, TVT_INT);  // written through

  Wrapped copying(nullptr, false, true);  // interfaces out before the value: they follow it
  variant_wrapper_set_wrapper_value(copying.handle, &value, true);
  TVARIANT* owned = variant_wrapper_get_wrapper_value(copying.handle);
  EXPECT_NE(owned, &value);
  EXPECT_TRUE(copying.write->setValue("copy", true));
  EXPECT_EQ(value.vt, TVT_INT);
  variant_wrapper_set_wrapper_value(copying.handle, owned, false);  // its own variant back: no change
  EXPECT_EQ(CVariantHelper::getValue(copying.read), "copy");

  variant_wrapper_handle* clone = variant_wrapper_clone(borrowing.handle);
  EXPECT_NE(variant_wrapper_get_wrapper_value(clone), &value);  // owns a copy although the source borrowed
  IVariantWrite* write = variant_wrapper_get_variantwrite(clone);  // same mode
  EXPECT_TRUE(write->setValue(5, true));
  write->releaseRef();
  EXPECT_EQ(value.intVal, 1);
  variant_wrapper_handle* again = variant_wrapper_clone(clone);
  variant_wrapper_destroy(clone);
  EXPECT_EQ(variant_wrapper_get_wrapper_value(again)->intVal, 5);
  variant_wrapper_destroy(again);

  variant_wrapper_set_wrapper_value(copying.handle, nullptr, true);  // frees the owned copy
  variant_wrapper_handle* emptyClone = variant_wrapper_clone(copying.handle);
  EXPECT_EQ(variant_wrapper_get_wrapper_value(emptyClone), nullptr);
  variant_wrapper_destroy(emptyClone);
}

TEST(VariantWrapper, TextResultsFollowTheBufferProtocol) {
  CVariant value(-1234);  // "-1234": 6 bytes with the terminator
  Wrapped w(&value, true, false);
  char buffer[16] = "untouched";
  DWORD len = 0;
  EXPECT_TRUE(w.read->getValue(nullptr, len));  // size query
  EXPECT_EQ(len, 6u);
  len = 5;  // one short: nothing written, length kept
  EXPECT_FALSE(w.read->getValue(buffer, len));
  EXPECT_EQ(len, 5u);
  EXPECT_STREQ(buffer, "untouched");
  len = 6;  // exact fit
  EXPECT_TRUE(w.read->getValue(buffer, len));
  EXPECT_STREQ(buffer, "-1234");
  len = sizeof buffer;
  EXPECT_TRUE(w.read->getValue(buffer, len));
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(value.vt, TVT_INT);  // text comes from a converted copy
  DWORD typeLen = 0;             // the handle's query writes the size back through const
  EXPECT_TRUE(variant_wrapper_get_type(w.handle, nullptr, typeLen));
  EXPECT_EQ(typeLen, 4u);  // "int"

  value = "text";
  EXPECT_EQ(CVariantHelper::getValue(w.read), "text");
  EXPECT_EQ(CVariantHelper::getType(w.read), "string");
  value.clear();  // no type name, and empty text
  EXPECT_TRUE(w.read->getType(nullptr, len) && w.read->getValue(nullptr, len));
  EXPECT_EQ(len, 1u);
}

TEST(VariantWrapper, ReadsConvertACopyAndSetTypeConvertsInPlace) {
  CVariant value;
  Wrapped w(&value, true, true);
  EXPECT_TRUE(w.write->setValue("-1", true));
  unsigned char byteValue = 0;
  short shortValue = 0;
  EXPECT_TRUE(w.read->getValue(byteValue) && w.read->getValue(shortValue));
  EXPECT_EQ(byteValue, 255);  // parsed unsigned: all ones
  EXPECT_EQ(shortValue, -1);
  EXPECT_EQ(value.vt, TVT_BSTR);  // reads never change the variant

  EXPECT_TRUE(w.write->setType("unsigned short"));
  EXPECT_TRUE(w.write->setType("no such type") && w.write->setType(nullptr));  // success, no change
  EXPECT_EQ(value.vt, TVT_UI2);
  EXPECT_EQ(value.uiVal, 65535);
}
