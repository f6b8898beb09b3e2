#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <ostrelled/Variant.h>
#include <ostrelled/VariantWrapper.h>

namespace {

// A read object that records its final release, so tests can see when it dies.
class CountedRead : public CVariantRead {
 public:
  explicit CountedRead(std::atomic<int>* finalReleases) : m_pFinalReleases(finalReleases) {}

 protected:
  void onFinalRelease() override { m_pFinalReleases->fetch_add(1); }

 private:
  std::atomic<int>* m_pFinalReleases;
};

std::string readText(IVariantRead* read) {
  DWORD len = 0;
  if (!read->getValue(nullptr, len)) return "<failed>";
  std::string text(len, '\0');
  if (!read->getValue(&text[0], len)) return "<failed>";
  text.resize(len - 1);
  return text;
}

std::string readType(IVariantRead* read) {
  char buffer[64] = {};
  DWORD len = sizeof buffer;
  return read->getType(buffer, len) ? buffer : "<failed>";
}

// A handle in the given mode over a borrowed variant.
variant_wrapper_handle* wrapperOver(TVARIANT* value, bool bAllowRead, bool bAllowWrite) {
  variant_wrapper_handle* handle = variant_wrapper_create();
  variant_wrapper_set_mode(handle, bAllowRead, bAllowWrite);
  variant_wrapper_set_wrapper_value(handle, value, false);
  return handle;
}

}  // namespace

TEST(VariantWrapper, ModeDecidesOnlyWhichInterfacesAreHandedOut) {
  CVariant value(7);
  variant_wrapper_handle* handle = variant_wrapper_create();
  variant_wrapper_set_wrapper_value(handle, &value, false);
  IVariantRead* read = variant_wrapper_get_variantread(handle);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(variant_wrapper_get_variantwrite(handle), nullptr);  // a new handle is read-only

  variant_wrapper_set_mode(handle, false, true);
  EXPECT_EQ(variant_wrapper_get_variantread(handle), nullptr);
  IVariantWrite* write = variant_wrapper_get_variantwrite(handle);
  ASSERT_NE(write, nullptr);

  // Interfaces already out, and the handle's own type calls, ignore the mode (intended).
  EXPECT_TRUE(write->setValue(9, true));
  int got = 0;
  EXPECT_TRUE(read->getValue(got));
  EXPECT_EQ(got, 9);
  variant_wrapper_set_mode(handle, false, false);
  EXPECT_TRUE(variant_wrapper_set_type(handle, "double"));
  char type[16];
  DWORD len = sizeof type;
  EXPECT_TRUE(variant_wrapper_get_type(handle, type, len));
  EXPECT_STREQ(type, "double");

  write->releaseRef();
  read->releaseRef();
  variant_wrapper_destroy(handle);
  EXPECT_EQ(handle, nullptr);
  variant_wrapper_destroy(handle);
}

TEST(VariantWrapper, WithoutAVariantEveryOperationFails) {
  variant_wrapper_handle* handle = variant_wrapper_create();
  variant_wrapper_set_mode(handle, true, true);
  EXPECT_EQ(variant_wrapper_get_wrapper_value(handle), nullptr);
  IVariantRead* read = variant_wrapper_get_variantread(handle);
  IVariantWrite* write = variant_wrapper_get_variantwrite(handle);

#define OSTRELLED_EXPECT_NO_VALUE(name, type, tag, member, format, typeName) \
  {                                                                        \
    type value{};                                                          \
    EXPECT_FALSE(read->getValue(value)) << #name;                          \
    EXPECT_FALSE(write->setValue(value, true)) << #name;                   \
  }
  OSTRELLED_SCALAR_TYPES(OSTRELLED_EXPECT_NO_VALUE)
#undef OSTRELLED_EXPECT_NO_VALUE
  char buffer[8] = "x";
  DWORD len = 0;
  EXPECT_FALSE(read->getValue(nullptr, len));
  EXPECT_FALSE(read->getType(nullptr, len));
  EXPECT_EQ(len, 0u);
  EXPECT_FALSE(write->setValue("text", true));
  EXPECT_FALSE(write->setType("int"));
  EXPECT_FALSE(variant_wrapper_get_type(handle, buffer, len));
  EXPECT_FALSE(variant_wrapper_set_type(handle, "int"));

  // Null handles.
  EXPECT_FALSE(variant_wrapper_get_type(nullptr, buffer, len));
  EXPECT_FALSE(variant_wrapper_set_type(nullptr, "int"));
  EXPECT_EQ(variant_wrapper_get_variantread(nullptr), nullptr);
  EXPECT_EQ(variant_wrapper_get_variantwrite(nullptr), nullptr);
  EXPECT_EQ(variant_wrapper_get_wrapper_value(nullptr), nullptr);
  EXPECT_EQ(variant_wrapper_clone(nullptr), nullptr);
  variant_wrapper_set_mode(nullptr, true, true);
  variant_wrapper_set_wrapper_value(nullptr, nullptr, true);

  read->releaseRef();
  write->releaseRef();
  variant_wrapper_destroy(handle);
}

TEST(VariantWrapper, QueryInterfaceAnswersOnlyToItsOwnNames) {
  CVariant value(1);
  variant_wrapper_handle* handle = wrapperOver(&value, true, true);
  IVariantRead* read = variant_wrapper_get_variantread(handle);
  IVariantWrite* write = variant_wrapper_get_variantwrite(handle);
  void* const untouched = &value;
  struct Row {
    IBase* object;
    const char* name;
    bool found;
  } rows[] = {
      {read, "IBase", true},          {read, "IVariantRead", true},  {read, "IVariantWrite", false},
      {write, "IBase", true},         {write, "IVariantWrite", true}, {write, "IVariantRead", false},
      {read, "IVariant", false},      {read, "ivariantread", false}, {read, "IVariantRead ", false},
      {read, nullptr, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name != nullptr ? row.name : "<null>");
    void* found = untouched;
    EXPECT_EQ(row.object->queryInterface(row.name, &found), row.found);
    // A successful lookup hands out the object itself with one more reference.
    EXPECT_EQ(found, row.found ? static_cast<void*>(row.object) : untouched);
    EXPECT_EQ(row.object->addRef(), row.found ? 4u : 3u);
    row.object->releaseRef();
    if (row.found) row.object->releaseRef();
  }
  EXPECT_FALSE(read->queryInterface("IBase", nullptr));
  EXPECT_EQ(read->releaseRef(), 1u);
  EXPECT_EQ(write->releaseRef(), 1u);
  variant_wrapper_destroy(handle);
}

TEST(VariantWrapper, InterfacesLiveWhileAnyoneHoldsAReference) {
  CVariant value(3);
  variant_wrapper_handle* handle = wrapperOver(&value, true, false);
  IVariantRead* first = variant_wrapper_get_variantread(handle);
  IVariantRead* second = variant_wrapper_get_variantread(handle);
  EXPECT_EQ(first, second);  // one object, counted: the handle's reference plus two
  EXPECT_EQ(first->addRef(), 4u);
  EXPECT_EQ(first->releaseRef(), 3u);
  EXPECT_EQ(first->releaseRef(), 2u);
  EXPECT_EQ(second->releaseRef(), 1u);
  int got = 0;
  EXPECT_TRUE(first->getValue(got));  // still alive through the handle's reference
  EXPECT_EQ(got, 3);

  // An interface can outlive its handle; over a borrowed variant it even keeps reading.
  IVariantRead* kept = variant_wrapper_get_variantread(handle);
  variant_wrapper_destroy(handle);
  EXPECT_TRUE(kept->getValue(got));
  EXPECT_EQ(kept->releaseRef(), 0u);
}

TEST(VariantWrapper, FinalReleaseRunsOnceAndReferencesAdoptNewObjects) {
  std::atomic<int> finalReleases{0};
  {
    CReference<CVariantRead> reference;
    EXPECT_TRUE(reference.nil());
    reference = new CountedRead(&finalReleases);  // adopts the count of 1
    EXPECT_FALSE(reference.nil());
    EXPECT_EQ(reference->addRef(), 2u);
    {
      CReference<CVariantRead> copy(reference);  // a copy holds a reference of its own
      EXPECT_EQ(copy->addRef(), 4u);
      copy->releaseRef();
    }
    EXPECT_EQ(reference->releaseRef(), 1u);
    reference = new CountedRead(&finalReleases);  // gives back the first object's last reference
    EXPECT_EQ(finalReleases.load(), 1);
  }
  EXPECT_EQ(finalReleases.load(), 2);
  CReference<CVariantRead> explicitRelease(new CountedRead(&finalReleases));
  explicitRelease.release();
  EXPECT_TRUE(explicitRelease.nil());
  EXPECT_EQ(finalReleases.load(), 3);
}

TEST(VariantWrapper, ReferenceCountsHoldUnderConcurrentUse) {
  std::atomic<int> finalReleases{0};
  CVariantRead* object = new CountedRead(&finalReleases);
  constexpr int kThreads = 8;
  constexpr int kRounds = 20000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([object] {
      for (int i = 0; i < kRounds; ++i) {
        object->addRef();
        void* self = nullptr;
        object->queryInterface("IBase", &self);
        object->releaseRef();
        object->releaseRef();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(object->addRef(), 2u);
  EXPECT_EQ(finalReleases.load(), 0);

  // kThreads owners drop their references at once: exactly one of them sees zero.
  for (int i = 1; i < kThreads; ++i) object->addRef();  // 2 + 7 = kThreads + 1
  object->releaseRef();
  std::atomic<int> sawZero{0};
  std::atomic<bool> go{false};
  threads.clear();
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      while (!go.load()) std::this_thread::yield();
      if (object->releaseRef() == 0) sawZero.fetch_add(1);
    });
  }
  go.store(true);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(sawZero.load(), 1);
  EXPECT_EQ(finalReleases.load(), 1);
}

TEST(VariantWrapper, BorrowedVariantIsSharedCopiedVariantIsNot) {
  CVariant value("original");
  variant_wrapper_handle* borrowing = wrapperOver(&value, true, true);
  EXPECT_EQ(variant_wrapper_get_wrapper_value(borrowing), &value);
  IVariantWrite* write = variant_wrapper_get_variantwrite(borrowing);
  EXPECT_TRUE(write->setValue("changed", true));
  write->releaseRef();
  variant_wrapper_destroy(borrowing);
  std::string text;
  EXPECT_TRUE(value.getValue(text));
  EXPECT_EQ(text, "changed");  // written through, and not freed by the handle

  variant_wrapper_handle* copying = wrapperOver(nullptr, true, true);
  IVariantRead* read = variant_wrapper_get_variantread(copying);  // taken before the value is set
  variant_wrapper_set_wrapper_value(copying, &value, true);
  EXPECT_NE(variant_wrapper_get_wrapper_value(copying), &value);
  EXPECT_EQ(readText(read), "changed");
  EXPECT_TRUE(variant_wrapper_set_type(copying, "int"));
  EXPECT_EQ(readType(read), "int");
  EXPECT_EQ(value.vt, TVT_BSTR);  // the caller's variant is untouched

  // Replacing the value frees the owned copy; handing back the current one changes nothing.
  CVariant second(2.5);
  variant_wrapper_set_wrapper_value(copying, &second, true);
  TVARIANT* owned = variant_wrapper_get_wrapper_value(copying);
  variant_wrapper_set_wrapper_value(copying, owned, false);
  variant_wrapper_set_wrapper_value(copying, owned, true);
  EXPECT_EQ(variant_wrapper_get_wrapper_value(copying), owned);
  EXPECT_EQ(readText(read), "2.500000");
  variant_wrapper_set_wrapper_value(copying, nullptr, true);
  EXPECT_EQ(variant_wrapper_get_wrapper_value(copying), nullptr);
  EXPECT_EQ(readText(read), "<failed>");

  read->releaseRef();
  variant_wrapper_destroy(copying);
  EXPECT_TRUE(value.getValue(text));
  EXPECT_EQ(text, "changed");
}

TEST(VariantWrapper, CloneOwnsADeepCopyAndKeepsTheMode) {
  CVariant value("source");
  variant_wrapper_handle* source = wrapperOver(&value, false, true);
  variant_wrapper_handle* clone = variant_wrapper_clone(source);
  variant_wrapper_destroy(source);
  ASSERT_NE(clone, nullptr);
  EXPECT_NE(variant_wrapper_get_wrapper_value(clone), &value);
  EXPECT_EQ(variant_wrapper_get_variantread(clone), nullptr);
  IVariantWrite* write = variant_wrapper_get_variantwrite(clone);
  ASSERT_NE(write, nullptr);
  EXPECT_TRUE(write->setValue(42, true));
  EXPECT_EQ(variant_wrapper_get_wrapper_value(clone)->intVal, 42);
  EXPECT_EQ(value.vt, TVT_BSTR);
  write->releaseRef();

  variant_wrapper_handle* again = variant_wrapper_clone(clone);
  variant_wrapper_destroy(clone);  // frees its copy; the second clone has its own
  EXPECT_EQ(variant_wrapper_get_wrapper_value(again)->intVal, 42);
  variant_wrapper_destroy(again);

  variant_wrapper_handle* empty = variant_wrapper_create();
  variant_wrapper_handle* emptyClone = variant_wrapper_clone(empty);
  EXPECT_EQ(variant_wrapper_get_wrapper_value(emptyClone), nullptr);
  variant_wrapper_destroy(emptyClone);
  variant_wrapper_destroy(empty);
}

TEST(VariantWrapper, TextResultsFollowTheBufferProtocol) {
  CVariant value(-1234);  // "-1234": needs 6 bytes
  variant_wrapper_handle* handle = wrapperOver(&value, true, false);
  IVariantRead* read = variant_wrapper_get_variantread(handle);

  DWORD len = 0;
  EXPECT_TRUE(read->getValue(nullptr, len));
  EXPECT_EQ(len, 6u);
  char buffer[16];
  std::memset(buffer, 'x', sizeof buffer);
  len = 5;  // one short
  EXPECT_FALSE(read->getValue(buffer, len));
  EXPECT_EQ(len, 5u);
  EXPECT_EQ(buffer[0], 'x');
  len = 6;  // exact fit
  EXPECT_TRUE(read->getValue(buffer, len));
  EXPECT_STREQ(buffer, "-1234");
  EXPECT_EQ(len, 6u);
  len = sizeof buffer;
  EXPECT_TRUE(read->getValue(buffer, len));
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(value.vt, TVT_INT);  // reading as text converts a copy

  // The handle's type query writes the size back through its const reference.
  DWORD typeLen = 0;
  EXPECT_TRUE(variant_wrapper_get_type(handle, nullptr, typeLen));
  EXPECT_EQ(typeLen, 4u);  // "int"
  typeLen = 3;
  EXPECT_FALSE(variant_wrapper_get_type(handle, buffer, typeLen));
  EXPECT_EQ(typeLen, 3u);

  // A string is read as it is; an empty variant has neither name nor text.
  value = "text";
  EXPECT_EQ(readText(read), "text");
  EXPECT_EQ(readType(read), "string");
  value.clear();
  EXPECT_EQ(readText(read), "");
  EXPECT_EQ(readType(read), "");

  read->releaseRef();
  variant_wrapper_destroy(handle);
}

TEST(VariantWrapper, WritesTakeTheValuesTypeAndSetTypeConverts) {
  CVariant value;
  variant_wrapper_handle* handle = wrapperOver(&value, true, true);
  IVariantRead* read = variant_wrapper_get_variantread(handle);
  IVariantWrite* write = variant_wrapper_get_variantwrite(handle);

  // Each overload lands on its own tag, whatever the flag.
#define OSTRELLED_EXPECT_WRITE_TYPE(name, type, tag, member, format, typeName) \
  EXPECT_TRUE(write->setValue(static_cast<type>(1), false));                 \
  EXPECT_EQ(readType(read), typeName);
  OSTRELLED_SCALAR_TYPES(OSTRELLED_EXPECT_WRITE_TYPE)
#undef OSTRELLED_EXPECT_WRITE_TYPE
  EXPECT_TRUE(write->setValue("-1", true));
  EXPECT_EQ(readType(read), "string");

  unsigned char byteValue = 0;
  short shortValue = 0;
  EXPECT_TRUE(read->getValue(byteValue));
  EXPECT_TRUE(read->getValue(shortValue));
  EXPECT_EQ(byteValue, 255);  // parsed unsigned: all ones
  EXPECT_EQ(shortValue, -1);
  EXPECT_EQ(value.vt, TVT_BSTR);  // reads never change the variant

  EXPECT_TRUE(write->setType("unsigned short"));
  EXPECT_EQ(value.vt, TVT_UI2);
  EXPECT_EQ(value.uiVal, 65535);
  EXPECT_TRUE(write->setType("no such type"));  // success reported, value unchanged
  EXPECT_TRUE(write->setType(nullptr));
  EXPECT_EQ(value.vt, TVT_UI2);
  EXPECT_EQ(value.uiVal, 65535);

  read->releaseRef();
  write->releaseRef();
  variant_wrapper_destroy(handle);
}
