#include <dlfcn.h>

#include "TestSupport.h"

TEST(OS_DynamicLibraryLoader, ResolvedSymbolsCanBeCalled) {
  void* module = os_dynamic_library_loader_load("libm.so.6");
  auto cosine = reinterpret_cast<double (*)(double)>(os_dynamic_library_loader_get_proc(module, "cos"));
  ASSERT_TRUE(cosine != nullptr && cosine(0.0) == 1.0);
  dlerror();
  // The failed lookup's message is still pending afterwards.
  EXPECT_TRUE(os_dynamic_library_loader_get_proc(module, "no_such_symbol") == nullptr && dlerror() != nullptr);
  os_dynamic_library_loader_free(module);
}

// Global scope and "never unload" cannot be undone, so each case runs in a child.
TEST(OS_DynamicLibraryLoader, HintsChooseTheLoadScope) {
  const struct {
    int hints, expected;
  } rows[] = {{0, 0}, {export_external_symbols_hint | 16, 1}, {prevent_unload_hint, 2}};  // 1: global, 2: kept
  for (const auto& row : rows) {
    const int scope = runChild([&row] {
      os_dynamic_library_loader_free(os_dynamic_library_loader_load_ex("libz.so.1", row.hints));
      if (dlopen("libz.so.1", RTLD_LAZY | RTLD_NOLOAD) != nullptr) return 2;  // kept after the free
      // Probed only now: a global lookup would make the library a dependency.
      os_dynamic_library_loader_load_ex("libz.so.1", row.hints);
      return dlsym(RTLD_DEFAULT, "zlibVersion") != nullptr ? 1 : 0;
    });
    EXPECT_EQ(scope, row.expected) << row.hints;
  }
}
