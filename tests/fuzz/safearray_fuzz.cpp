// Safe-array steps against a model; no copies of string arrays, whose units are kept on purpose.

#include "FuzzInput.h"

namespace {

using Element = std::optional<std::string>;  // bytes of a scalar, or a string unit

const size_t kWidth[] = {0, 1, 1, 2, 2, 4, 4, 8, 8, 8, 8, 4, 8, sizeof(LPBSTRUNIT), 1};

struct Model {
  TVARTYPE vt;
  bool valid;
  unsigned count = 0;
  std::vector<Element> elements;  // only for valid types

  Element zero() const { return vt == TVT_BSTR ? Element() : Element(std::string(kWidth[vt], '\0')); }
};

Element fromUnit(LPBSTRUNIT unit) {
  if (!unit) return Element();
  int length;
  memcpy(&length, unit, 4);
  return std::string(reinterpret_cast<char*>(unit) + 4, length);
}

// Sets the element index to fuzzed bytes (a bool is one byte of 0 or 1).
void setElement(fuzz::Input& in, safearray_handle* array, Model& model, unsigned index) {
  Element value = model.vt == TVT_BSTR ? ((in.byte() & 1) ? Element(in.text()) : Element())
                                       : Element(std::string(model.valid ? kWidth[model.vt] : 8, '\0'));
  if (model.vt != TVT_BSTR)
    for (char& c : *value) c = static_cast<char>(model.vt == TVT_BOOL ? in.byte() & 1 : in.byte());
  LPBSTRUNIT unit = model.vt == TVT_BSTR && value ? fuzz::newUnit(*value) : nullptr;
  void* source = model.vt == TVT_BSTR ? static_cast<void*>(&unit) : value->data();
  const bool accepted = model.valid && index < model.count;
  fuzz::check(!safearray_set_element(array, index, nullptr) && !safearray_set_element(nullptr, index, source), "null");
  fuzz::check(safearray_set_element(array, index, source) == accepted, "set");
  if (accepted) model.elements[index] = value;
  fuzz::freeUnit(unit);  // the array made its own copy
}

void checkElement(safearray_handle* array, const Model& model, unsigned index) {
  char buffer[8] = {};
  const bool readable = model.valid && index < model.count;
  fuzz::check(
      !safearray_get_element(array, index, nullptr) && !safearray_get_element(nullptr, index, buffer) && buffer[0] == 0,
      "null");
  fuzz::check(safearray_get_element(array, index, buffer) == readable, "get");
  if (!readable) return;
  if (model.vt == TVT_BSTR) {
    LPBSTRUNIT unit;
    memcpy(&unit, buffer, sizeof unit);
    fuzz::check(fromUnit(unit) == model.elements[index], "string element");
    fuzz::freeUnit(unit);
  } else {
    fuzz::check(memcmp(buffer, model.elements[index]->data(), kWidth[model.vt]) == 0, "scalar element");
  }
}

void checkCopy(safearray_handle* array, const Model& model) {
  void* copy = nullptr;
  fuzz::check(!safearray_access_element(array, nullptr) && !safearray_access_element(nullptr, &copy) && !copy, "null");
  const bool accepted = model.count == 0 || model.valid;
  fuzz::check(safearray_access_element(array, &copy) == accepted, "access");
  if (!accepted) return;
  fuzz::check((copy == nullptr) == (model.count == 0), "copy of an empty array is null");
  for (unsigned i = 0; i < model.count; ++i)
    fuzz::check(
        memcmp(static_cast<char*>(copy) + i * kWidth[model.vt], model.elements[i]->data(), kWidth[model.vt]) == 0,
        "copy");
}

void resize(safearray_handle* array, Model& model, unsigned count) {
  fuzz::check(safearray_resize(array, count) == (model.valid || count == model.count), "resize");
  model.count = count;  // even where the type refuses: intended
  if (model.valid) model.elements.resize(count, model.zero());
}

void step(fuzz::Input& in, safearray_handle* array, Model& model) {
  const int op = in.byte() % 6;
  const unsigned index = in.byte() % (model.count + 2);
  switch (op) {
    case 0:
      resize(array, model, in.byte() % 40);
      break;
    case 1:
      setElement(in, array, model, index);
      break;
    case 2:
      checkElement(array, model, index);
      break;
    case 3:
      if (model.vt != TVT_BSTR) checkCopy(array, model);
      break;
    case 4:
      fuzz::check(safearray_unaccess_element(array), "unaccess");
      break;
    default:
      safearray_clear(array);
      model.count = 0;
      model.elements.clear();
  }
  fuzz::check(safearray_get_element_count(array) == model.count && safearray_get_element_type(array) == model.vt,
              "count and type");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  Model model;
  model.vt = static_cast<TVARTYPE>(in.byte() % 16);
  model.valid = model.vt >= TVT_I1 && model.vt <= TVT_BOOL;
  const unsigned initial = in.byte() % 40;
  safearray_handle* array = safearray_create(model.vt, initial);
  model.count = initial;
  if (model.valid) model.elements.assign(initial, model.zero());
  for (int steps = 0; !in.empty() && steps < 64; ++steps) step(in, array, model);
  for (unsigned i = 0; i < model.count && model.valid; ++i) checkElement(array, model, i);
  safearray_destroy(array);
  fuzz::check(array == nullptr, "destroy resets the pointer");
  return 0;
}
