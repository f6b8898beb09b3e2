#include <stdio.h>

#include <string>

#include <gtest/gtest.h>

#include <ostrelled/Ostrelled.h>

TEST(Version, LibraryReportsTheHeadersVersionAsMajorMinorPatch) {
  char expected[64];
  snprintf(expected, sizeof expected, "%d.%d.%d", OSTRELLED_VERSION_MAJOR, OSTRELLED_VERSION_MINOR,
           OSTRELLED_VERSION_PATCH);
  EXPECT_STREQ(OSTRELLED_VERSION_STRING, expected);
  EXPECT_STREQ(ostrelled_version(), expected);
}
