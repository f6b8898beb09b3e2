#include "TestSupport.h"

namespace {

// Both interfaces taken out before the value is set (they must follow it) and the mode narrowed.
struct Wrapped {
  explicit Wrapped(TVARIANT* value) {
    variant_wrapper_set_mode(handle, true, true);
    read = variant_wrapper_get_variantread(handle);
    write = variant_wrapper_get_variantwrite(handle);
    variant_wrapper_set_wrapper_value(handle, value, false);
  }
  ~Wrapped() {
    read->releaseRef();
    write->releaseRef();
    variant_wrapper_destroy(handle);
  }
  variant_wrapper_handle* handle = variant_wrapper_create();
  IVariantRead* read;
  IVariantWrite* write;
};

}  // namespace

TEST(VariantWrapper, ModeDecidesOnlyWhichInterfacesAreHandedOut) {
  variant_wrapper_handle* fresh = variant_wrapper_create();  // read-only
  EXPECT_EQ(variant_wrapper_get_variantwrite(fresh), nullptr);
  IVariantRead* read = variant_wrapper_get_variantread(fresh);
  variant_wrapper_destroy(fresh);  // our reference keeps the interface alive
  EXPECT_EQ(read->releaseRef(), 0u);

  CVariant value(3);
  Wrapped w(&value);
  variant_wrapper_set_mode(w.handle, false, true);
  EXPECT_EQ(variant_wrapper_get_variantread(w.handle), nullptr);
  // The interface already out, and the handle's own type query, ignore the mode (intended).
  EXPECT_EQ(CVariantHelper::getValue(w.read), "3");
  DWORD len = 0;
  EXPECT_TRUE(variant_wrapper_get_type(w.handle, nullptr, len));
  EXPECT_EQ(len, 4u);  // "int", written back through the const reference
}

TEST(VariantWrapper, QueryInterfaceAnswersToItsOwnNames) {
  Wrapped w(nullptr);  // each interface: the handle's reference plus ours
  const struct {
    IBase* object;
    const char* name;
    bool found;
  } rows[] = {{w.read, "IBase", true},         {w.read, "IVariantRead", true},   {w.read, "IVariantWrite", false},
              {w.write, "IBase", true},        {w.write, "IVariantWrite", true}, {w.write, "IVariantRead", false},
              {w.read, "ivariantread", false}, {w.read, "IVariant", false},      {w.read, nullptr, false}};
  for (const auto& row : rows) {
    void* found = &w;
    EXPECT_EQ(row.object->queryInterface(row.name, &found), row.found) << (row.name ? row.name : "null");
    EXPECT_EQ(found, row.found ? static_cast<void*>(row.object) : &w);
    EXPECT_EQ(row.object->releaseRef(), row.found ? 2u : 1u);  // a hit added one reference
    if (!row.found) row.object->addRef();
  }
  int number = 0;
  EXPECT_FALSE(w.read->getValue(number) || w.write->setValue(number, true) || w.write->setValue("x", true));
}

TEST(VariantWrapper, ReferenceCountsHoldUnderConcurrentUse) {
  CVariantRead* object = new CVariantRead;  // one reference, ours
  // Eight threads at once take a million references each, then all give them back.
  for (bool taking : {true, false}) {
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
      threads.emplace_back([&] {
        started.fetch_add(1);
        while (started.load() < 8) std::this_thread::yield();
        for (int i = 0; i < 1000000; ++i)  // a lost increment would reach zero early
          EXPECT_NE(taking ? object->addRef() : object->releaseRef(), 0u);
      });
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(object->releaseRef(), 0u);  // a lost decrement keeps it alive
}

TEST(VariantWrapper, BorrowSharesTheVariant) {
  CVariant value("original");
  Wrapped borrowing(&value);
  EXPECT_TRUE(borrowing.write->setValue(1, true));
  EXPECT_EQ(value.vt, TVT_INT);  // written through

  Wrapped copying(nullptr);
  variant_wrapper_set_wrapper_value(copying.handle, &value, true);
  EXPECT_TRUE(copying.write->setValue("copy", true));
  EXPECT_EQ(value.vt, TVT_INT);  // the copy was written, not ours
  // Handing the handle its own variant back changes nothing.
  variant_wrapper_set_wrapper_value(copying.handle, variant_wrapper_get_wrapper_value(copying.handle), false);
  EXPECT_EQ(CVariantHelper::getValue(copying.read), "copy");

  variant_wrapper_handle* clone = variant_wrapper_clone(borrowing.handle);
  TVARIANT* cloned = variant_wrapper_get_wrapper_value(clone);
  EXPECT_NE(cloned, &value);  // owns a copy although the source borrowed
  EXPECT_EQ(cloned->intVal, 1);
  variant_wrapper_destroy(clone);  // frees its copy
}

// The buffer protocol of text results is checked on every type name by fuzz/type_names_fuzz.cpp.
TEST(VariantWrapper, TextComesFromAConvertedCopyAndAnUnknownTypeChangesNothing) {
  CVariant value(-1234);
  Wrapped w(&value);
  EXPECT_EQ(CVariantHelper::getValue(w.read), "-1234");
  EXPECT_EQ(value.vt, TVT_INT);
  EXPECT_TRUE(w.write->setType("unsigned short"));
  EXPECT_TRUE(w.write->setType("no such type"));  // reports success, changes nothing (intended)
  EXPECT_EQ(value.uiVal, 64302);
}
