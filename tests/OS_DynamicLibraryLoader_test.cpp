#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

#include <ostrelled/OS_DynamicLibraryLoader.h>

#include "Sanitizers.h"
#include "TestSupport.h"

TEST(OS_DynamicLibraryLoader, LoadsResolvesAndLeavesTheLookupErrorUnread) {
  void* module = os_dynamic_library_loader_load("libm.so.6");
  ASSERT_NE(module, nullptr);
  auto cosine = reinterpret_cast<double (*)(double)>(os_dynamic_library_loader_get_proc(module, "cos"));
  ASSERT_NE(cosine, nullptr);
  EXPECT_DOUBLE_EQ(cosine(0.0), 1.0);
  EXPECT_EQ(os_dynamic_library_loader_get_proc(nullptr, "cos"), nullptr);
  dlerror();
  EXPECT_EQ(os_dynamic_library_loader_get_proc(module, "ostrelled_no_such_symbol"), nullptr);
  EXPECT_NE(dlerror(), nullptr);  // still pending after the lookup
  // This C library clears a pending error in every dlopen, so a later load succeeds.
  os_dynamic_library_loader_get_proc(module, "ostrelled_no_such_symbol");
  void* again = os_dynamic_library_loader_load("libm.so.6");
  EXPECT_NE(again, nullptr);
  os_dynamic_library_loader_free(again);
  os_dynamic_library_loader_free(module);
  os_dynamic_library_loader_free(nullptr);
}

TEST(OS_DynamicLibraryLoader, FailedLoadPrintsOneLineAndReturnsNull) {
  testing::internal::CaptureStdout();
  void* module = os_dynamic_library_loader_load_ex("/nonexistent/libnothing.so", 0);
  fflush(stdout);
  const std::string output = testing::internal::GetCapturedStdout();
  EXPECT_EQ(module, nullptr);
  EXPECT_EQ(output.rfind("Load library '/nonexistent/libnothing.so' failed:", 0), 0u) << output;
  EXPECT_NE(output.find("cannot open shared object file"), std::string::npos) << output;
  EXPECT_EQ(output.find('\n'), output.size() - 1);
}

TEST(OS_DynamicLibraryLoader, HintsChooseScopeAndUnloading) {
  // A library the tests do not link, probed in a child per case: global scope
  // and "never unload" cannot be undone. Returns 1 for global, 2 for kept.
  auto probe = [](int hints) {
    return testsupport::runChild([hints] {
      if (dlopen("libz.so.1", RTLD_LAZY | RTLD_NOLOAD) != nullptr) return 10;  // already there: cannot judge
      void* module = os_dynamic_library_loader_load_ex("libz.so.1", hints);
      if (module == nullptr) return 11;
      os_dynamic_library_loader_free(module);
      const bool kept = dlopen("libz.so.1", RTLD_LAZY | RTLD_NOLOAD) != nullptr;
      // Probed after the unload check: a global lookup makes the library a dependency.
      if (!kept) os_dynamic_library_loader_load_ex("libz.so.1", hints);
      return (dlsym(RTLD_DEFAULT, "zlibVersion") != nullptr ? 1 : 0) | (kept ? 2 : 0);
    });
  };
  EXPECT_EQ(probe(0), 0);
  EXPECT_EQ(probe(resolve_all_symbols_hint | export_external_symbols_hint), 1);
  EXPECT_EQ(probe(prevent_unload_hint | 16), 2);
  if (!OSTRELLED_TEST_UNDER_ASAN) {  // that runtime refuses RTLD_DEEPBIND
    EXPECT_EQ(probe(15), 3);
  }
}
