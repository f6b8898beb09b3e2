#include <gtest/gtest.h>

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include <ostrelled/OS_File.h>

#include "TempDirectory.h"

using testsupport::readFile;
using testsupport::writeFile;

TEST(OS_File, NullAndEmptyPathsAreRefusedWithoutSystemCalls) {
  OS_FILE_TIME times{};
  for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
    errno = 12345;  // any system call that ran on them would change it
    EXPECT_FALSE(os_file_is_relative_path(bad));
    EXPECT_FALSE(os_file_exist(bad));
    EXPECT_FALSE(os_file_create(bad));
    EXPECT_FALSE(os_file_remove(bad));
    EXPECT_FALSE(os_file_gettime(bad, &times));
    EXPECT_FALSE(os_file_settime(bad, &times));
    EXPECT_FALSE(os_file_move(bad, "/tmp"));
    EXPECT_FALSE(os_file_move("/tmp", bad));
    EXPECT_FALSE(os_file_copy(bad, "/tmp/x", false));
    EXPECT_FALSE(os_file_copy("/etc/hostname", bad, false));
    EXPECT_EQ(errno, 12345);
  }
  EXPECT_FALSE(os_file_gettime("/tmp", nullptr));
  EXPECT_FALSE(os_file_settime("/tmp", nullptr));
}

TEST(OS_File, RelativePathIsAnythingNotStartingWithSlash) {
  EXPECT_TRUE(os_file_is_relative_path("./a"));
  EXPECT_TRUE(os_file_is_relative_path("a/b"));
  EXPECT_TRUE(os_file_is_relative_path("~/a"));
  EXPECT_FALSE(os_file_is_relative_path("/a"));
}

TEST(OS_File, ExistFollowsLinksIgnoresTrailingSlashesAndRejectsDirectories) {
  testsupport::TempDirectory dir;
  writeFile(dir / "file", "x");
  ASSERT_EQ(symlink("file", (dir / "link").c_str()), 0);
  ASSERT_EQ(symlink("missing", (dir / "dangling").c_str()), 0);
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_TRUE(os_file_exist((dir / "file").c_str()));
  EXPECT_TRUE(os_file_exist((dir / "file///").c_str()));
  EXPECT_TRUE(os_file_exist((dir / "link").c_str()));
  EXPECT_TRUE(os_file_exist((dir / "fifo").c_str()));
  EXPECT_FALSE(os_file_exist((dir / "dangling").c_str()));
  EXPECT_FALSE(os_file_exist((dir / "missing").c_str()));
  EXPECT_FALSE(os_file_exist(dir.path().c_str()));
  EXPECT_FALSE(os_file_exist((dir.path() + "/").c_str()));
}

TEST(OS_File, SlashOnlyPathsThrowOutOfRange) {
  for (const char* slashes : {"/", "//"}) {
    EXPECT_THROW(os_file_exist(slashes), std::out_of_range);
    EXPECT_THROW(os_file_create(slashes), std::out_of_range);
    EXPECT_THROW(os_file_remove(slashes), std::out_of_range);
  }
}

TEST(OS_File, CreateKeepsContentAndGivesMode0777WhateverTheUmask) {
  testsupport::TempDirectory dir;
  const mode_t old = umask(077);
  EXPECT_TRUE(os_file_create((dir / "new/").c_str()));
  EXPECT_EQ(umask(old), 077u);  // the caller's mask is back
  struct stat info {};
  ASSERT_EQ(stat((dir / "new").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0777u);

  writeFile(dir / "full", "content");
  chmod((dir / "full").c_str(), 0640);
  EXPECT_TRUE(os_file_create((dir / "full").c_str()));
  EXPECT_EQ(readFile(dir / "full"), "content");
  ASSERT_EQ(stat((dir / "full").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
  EXPECT_FALSE(os_file_create((dir / "no/such/file").c_str()));
}

TEST(OS_File, RemoveUnlinksFilesAndLinksButNotDirectories) {
  testsupport::TempDirectory dir;
  writeFile(dir / "file", "x");
  ASSERT_EQ(symlink("missing", (dir / "dangling").c_str()), 0);
  EXPECT_TRUE(os_file_remove((dir / "file//").c_str()));
  EXPECT_FALSE(os_file_exist((dir / "file").c_str()));
  EXPECT_TRUE(os_file_remove((dir / "dangling").c_str()));
  EXPECT_FALSE(os_file_remove((dir / "file").c_str()));
  EXPECT_FALSE(os_file_remove(dir.path().c_str()));
}

TEST(OS_File, TimesRoundTripAndMissingFilesStillReportTrue) {
  testsupport::TempDirectory dir;
  writeFile(dir / "file", "x");
  OS_FILE_TIME set{1000000000, 1200000000};
  EXPECT_TRUE(os_file_settime((dir / "file").c_str(), &set));
  OS_FILE_TIME got{};
  EXPECT_TRUE(os_file_gettime((dir / "file").c_str(), &got));
  EXPECT_EQ(got.actime, 1000000000);
  EXPECT_EQ(got.modtime, 1200000000);
  EXPECT_TRUE(os_file_gettime((dir / "missing").c_str(), &got));
  EXPECT_TRUE(os_file_settime((dir / "missing").c_str(), &set));
}

TEST(OS_File, MoveRenamesAndReplacesTheDestination) {
  testsupport::TempDirectory dir;
  writeFile(dir / "a", "first");
  writeFile(dir / "b", "second");
  EXPECT_TRUE(os_file_move((dir / "a").c_str(), (dir / "b").c_str()));
  EXPECT_EQ(readFile(dir / "b"), "first");
  EXPECT_FALSE(os_file_move((dir / "a").c_str(), (dir / "c").c_str()));
}

TEST(OS_File, CopyCarriesContentAndTimesAndAlwaysOverwrites) {
  testsupport::TempDirectory dir;
  std::string big;
  for (int i = 0; i < 3 * 8192 + 123; ++i) big += static_cast<char>(i * 31 + i / 7);
  OS_FILE_TIME times{1100000000, 1300000000};
  for (const std::string& content : {std::string(), big}) {
    writeFile(dir / "src", content);
    os_file_settime((dir / "src").c_str(), &times);
    writeFile(dir / "dst", std::string(40000, 'z'));  // longer than any source: must be truncated
    EXPECT_TRUE(os_file_copy((dir / "src").c_str(), (dir / "dst").c_str(), true));
    OS_FILE_TIME got{};
    os_file_gettime((dir / "dst").c_str(), &got);  // before reading it moves the access time
    EXPECT_EQ(got.actime, times.actime);
    EXPECT_EQ(got.modtime, times.modtime);
    EXPECT_EQ(readFile(dir / "dst"), content);
  }
  EXPECT_FALSE(os_file_copy((dir / "missing").c_str(), (dir / "dst").c_str(), false));
  EXPECT_FALSE(os_file_copy((dir / "src").c_str(), (dir / "no/dir").c_str(), false));
}
