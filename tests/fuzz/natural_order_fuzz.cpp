// Natural order against its definition: from the digit run of the first difference, runs by atoi,
// digits before other bytes, other bytes by signed value.

#include <algorithm>

#include "FuzzInput.h"

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool referenceGreater(const char* x, const char* y) {
  const size_t maxCheck = std::min(strlen(x), strlen(y));
  size_t same = maxCheck, digits = 0;
  for (size_t i = 0; i < maxCheck; ++i) {
    if (x[i] != y[i]) {
      same = i;
      break;
    }
    digits = isDigit(x[i]) ? digits + 1 : 0;
  }
  const size_t start = same - digits;
  const signed char a = x[start], b = y[start];
  if (a == 0) return false;
  if (b == 0) return true;
  if (isDigit(a)) return isDigit(b) && atoi(x + start) > atoi(y + start);
  return isDigit(b) || a > b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const std::string first = in.text(), second = in.rest();
  const char *x = first.c_str(), *y = second.c_str();
  const std::string both = first + " | " + second;
  fuzz::check(os_clibrary_string_intelligent_greater(x, y) == referenceGreater(x, y), "greater", both);
  fuzz::check(os_clibrary_string_intelligent_less(x, y) == referenceGreater(y, x), "less", both);
  return 0;
}
