// Counted-string operations on three handles, checked after every step against a model.

#include "FuzzInput.h"

namespace {

using Value = std::optional<std::string>;

void checkHolds(bstr_handle* handle, const Value& expected) {
  const char* data = bstr_get_data(handle);
  fuzz::check(!data == !expected, "value present");
  if (!expected) return;
  fuzz::check(bstr_get_length(handle) == int(expected->size()) && memcmp(data, expected->data(), expected->size()) == 0,
              "value bytes", *expected);
}

// Sets a handle from text, data or a caller's block (perhaps none); returns what it then holds.
Value setFrom(fuzz::Input& in, bstr_handle* handle, int how) {
  const std::string bytes = in.text();
  if (how == 0) {
    fuzz::check(bstr_set_text(handle, bytes.c_str()), "set text");
    return bytes + '\0';  // a text block counts its terminator
  }
  if (how == 1) {
    fuzz::check(bstr_set_data(handle, bytes.data(), int(bytes.size())), "set data");
    return bytes;
  }
  const Value source = (in.byte() & 1) ? Value(bytes) : Value();
  LPBSTRUNIT block = source ? fuzz::newUnit(*source) : nullptr;
  fuzz::check(bstr_set_bstrunit(handle, block), "set unit");
  fuzz::freeUnit(block);
  return source;
}

// One operation on handles a and b (perhaps the same one).
void step(fuzz::Input& in, bstr_handle* handles[], Value values[]) {
  const int op = in.byte() % 9, a = in.byte() % 3, b = in.byte() % 3;
  switch (op) {
    case 0:
    case 1:
    case 2:
      values[a] = setFrom(in, handles[a], op);
      break;
    case 3:
      fuzz::check(bstr_set_bstr(handles[a], handles[b]), "set bstr");
      values[a] = a == b ? Value() : values[b];  // a self-assignment empties: intended
      break;
    case 4:
      bstr_clear(handles[a]);
      values[a].reset();
      break;
    case 5: {
      LPBSTRUNIT block = bstr_detach_bstrunit(handles[a]);
      bstr_attach_bstrunit(handles[b], block);
      if (block != nullptr && (in.byte() & 1)) bstr_attach_bstrunit(handles[b], block);  // its own block: kept
      const Value moved = values[a];
      values[a].reset();
      values[b] = moved;
      break;
    }
    case 6: {  // refused, the value kept: a negative length, a block whose length word is negative
      fuzz::check(!bstr_set_data(handles[a], "x", -1 - in.byte()), "negative length");
      const int negative = -1 - in.byte();
      LPBSTRUNIT bad = fuzz::newUnit(in.text());
      memcpy(bad, &negative, 4);
      fuzz::check(!bstr_set_bstrunit(handles[a], bad), "negative length word");
      fuzz::freeUnit(bad);
      break;
    }
    case 7:  // a text value set again from its own bytes
      if (values[a] && !values[a]->empty() && values[a]->find('\0') == values[a]->size() - 1)
        fuzz::check(bstr_set_text(handles[a], bstr_get_data(handles[a])), "set text from its own bytes");
      break;
    default: {
      fuzz::check(bstr_equal_bstr(nullptr, nullptr) && !bstr_equal_bstr(nullptr, handles[a]), "equal null");
      fuzz::check(bstr_equal_bstr(handles[a], handles[b]) == (values[a] == values[b]), "equal bstr");
      const std::string text = in.text();
      LPBSTRUNIT block = fuzz::newUnit(text);
      fuzz::check(bstr_equal_bstrunit(handles[a], block) == (values[a] == text), "equal unit", text);
      fuzz::freeUnit(block);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  bstr_handle* handles[3] = {bstr_create(), bstr_create(), bstr_create()};
  Value values[3];
  for (int steps = 0; !in.empty() && steps < 64; ++steps) {
    step(in, handles, values);
    for (int i = 0; i < 3; ++i) checkHolds(handles[i], values[i]);
  }
  for (bstr_handle*& handle : handles) {
    bstr_destroy(handle);
    fuzz::check(handle == nullptr, "destroy resets the pointer");
  }
  return 0;
}
