#ifndef OSTRELLED_EXAMPLES_SHOWOBJECTS_H
#define OSTRELLED_EXAMPLES_SHOWOBJECTS_H

// Lets a user watch an example's named objects while they are in use: the
// example's first argument, when given, is a command (the demo passes
// "ostrelled-ctl list") that it runs at the moment its processes hold them.

#include <stdio.h>
#include <stdlib.h>

inline void showObjects(int argc, char** argv) {
  if (argc < 2) return;
  fflush(stdout);
  if (system(argv[1]) != 0) fprintf(stderr, "the command \"%s\" failed\n", argv[1]);
}

#endif
