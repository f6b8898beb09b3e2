// A program outside the project that links the installed library.
#include <cstdio>

#include <ostrelled/Ostrelled.h>

int main() {
  if (get_default_rt_mode() != USE_STD) return 1;
  std::puts("downstream program ran");
  return 0;
}
