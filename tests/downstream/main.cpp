// A program outside the project that links the installed library.
#include <cstdio>
#include <cstring>

#include <ostrelled/Ostrelled.h>

int main() {
  CVariant value(-2.75);
  if (!value.changeType(TVT_BSTR)) return 1;
  std::string text;
  value.getValue(text);
  CBStr copy;
  copy = text.c_str();
  if (std::strcmp(copy, "-2.750000") != 0 || get_default_rt_mode() != USE_STD) return 1;
  std::printf("downstream program ran: %s\n", static_cast<const char*>(copy));
  return 0;
}
