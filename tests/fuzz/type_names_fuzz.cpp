// Any text is a type name of the table or none; any tag's name comes through the size query.

#include "FuzzInput.h"

namespace {

const char* const kNames[] = {
#define OSTRELLED_TYPE_NAME(name, type, tag, member, format, typeName) typeName,
    OSTRELLED_SCALAR_TYPES(OSTRELLED_TYPE_NAME)
#undef OSTRELLED_TYPE_NAME
};

// The name of a tag, or null for TVT_NULL and tags outside the table.
const char* nameOf(unsigned tag) {
  if (tag == TVT_BSTR) return "string";
  if (tag < TVT_I1 || tag > TVT_BOOL) return nullptr;
  return kNames[tag < TVT_BSTR ? tag - 1 : tag - 2];
}

void checkLookup(const std::string& text) {
  TVARTYPE expected = TVT_NULL, type = TVT_R8;
  for (unsigned tag = TVT_I1; tag <= TVT_BOOL; ++tag)
    if (text == nameOf(tag)) expected = static_cast<TVARTYPE>(tag);
  fuzz::check(variant_resolve_type(text.c_str(), type) == (expected != TVT_NULL) && type == expected, "lookup", text);
}

void checkDisplay(TVARTYPE tag) {
  const char* name = nameOf(tag);
  DWORD len = 12345;
  char buffer[32];
  memset(buffer, 'x', sizeof buffer);
  const bool known = name != nullptr;
  fuzz::check(variant_resolve_display_type(tag, nullptr, len) == known, "size query");
  if (!known) return fuzz::check(len == 12345, "unknown tag leaves the length");
  const DWORD needed = strlen(name) + 1;
  fuzz::check(len == needed, "needed size", name);
  len = needed - 1;
  fuzz::check(!variant_resolve_display_type(tag, buffer, len) && len == needed - 1 && buffer[0] == 'x', "too small");
  len = needed;
  fuzz::check(variant_resolve_display_type(tag, buffer, len) && len == needed && strcmp(buffer, name) == 0, "fill");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  checkDisplay(in.take<TVARTYPE>());
  checkLookup(in.rest());
  return 0;
}
