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

namespace {
mode_t modeOf(const std::string& path) {
  struct stat info {};
  stat(path.c_str(), &info);
  return info.st_mode & 07777;
}
}  // namespace

TEST(OS_File, BadPathsAreRefusedWithoutSystemCalls) {
  OS_FILE_TIME times{};
  for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
    errno = 12345;  // any system call made on them would change it
    EXPECT_FALSE(os_file_is_relative_path(bad) || os_file_exist(bad) || os_file_create(bad) ||
                 os_file_remove(bad) || os_file_gettime(bad, &times) || os_file_settime(bad, &times) ||
                 os_file_move(bad, "/tmp") || os_file_move("/tmp", bad) || os_file_copy(bad, "/tmp/x", false) ||
                 os_file_copy("/etc/hostname", bad, false));
    EXPECT_EQ(errno, 12345);
  }
  EXPECT_FALSE(os_file_gettime("/tmp", nullptr) || os_file_settime("/tmp", nullptr));
  for (const char* slashes : {"/", "//"}) {  // kept: the stripping runs off the start of the string
    EXPECT_THROW(os_file_exist(slashes), std::out_of_range);
    EXPECT_THROW(os_file_create(slashes), std::out_of_range);
    EXPECT_THROW(os_file_remove(slashes), std::out_of_range);
  }
  EXPECT_TRUE(os_file_is_relative_path("./a") && os_file_is_relative_path("~/a"));
  EXPECT_FALSE(os_file_is_relative_path("/a"));
}

TEST(OS_File, ExistFollowsLinksIgnoresTrailingSlashesAndRejectsDirectories) {
  testsupport::TempDirectory dir;
  writeFile(dir / "file", "x");
  symlink("file", (dir / "link").c_str());
  symlink("missing", (dir / "dangling").c_str());
  mkfifo((dir / "fifo").c_str(), 0600);
  for (const char* name : {"file", "file///", "link", "fifo"}) EXPECT_TRUE(os_file_exist((dir / name).c_str())) << name;
  for (const char* name : {"dangling", "missing", "", "/"}) EXPECT_FALSE(os_file_exist((dir / name).c_str())) << name;
}

TEST(OS_File, CreateKeepsContentAndGivesMode0777WhateverTheUmask) {
  testsupport::TempDirectory dir;
  const mode_t old = umask(077);
  EXPECT_TRUE(os_file_create((dir / "new/").c_str()));
  EXPECT_EQ(umask(old), 077u);  // the caller's mask is back
  EXPECT_EQ(modeOf(dir / "new"), 0777u);
  writeFile(dir / "full", "content");
  chmod((dir / "full").c_str(), 0640);
  EXPECT_TRUE(os_file_create((dir / "full").c_str()));
  EXPECT_EQ(readFile(dir / "full"), "content");
  EXPECT_EQ(modeOf(dir / "full"), 0640u);
  EXPECT_FALSE(os_file_create((dir / "no/such/file").c_str()));
}

TEST(OS_File, RemoveMoveAndTimes) {
  testsupport::TempDirectory dir;
  writeFile(dir / "a", "first");
  writeFile(dir / "b", "second");
  symlink("missing", (dir / "dangling").c_str());
  EXPECT_TRUE(os_file_move((dir / "a").c_str(), (dir / "b").c_str()));
  EXPECT_EQ(readFile(dir / "b"), "first");
  EXPECT_FALSE(os_file_move((dir / "a").c_str(), (dir / "c").c_str()));
  OS_FILE_TIME set{1000000000, 1200000000}, got{};
  EXPECT_TRUE(os_file_settime((dir / "b").c_str(), &set));
  EXPECT_TRUE(os_file_gettime((dir / "b").c_str(), &got));
  EXPECT_EQ(got.actime, set.actime);
  EXPECT_EQ(got.modtime, set.modtime);
  EXPECT_TRUE(os_file_gettime((dir / "missing").c_str(), &got));  // lax on purpose
  EXPECT_TRUE(os_file_remove((dir / "b//").c_str()));
  EXPECT_TRUE(os_file_remove((dir / "dangling").c_str()));
  EXPECT_FALSE(os_file_remove((dir / "b").c_str()));
  EXPECT_FALSE(os_file_remove(dir.path().c_str()));
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
    os_file_gettime((dir / "dst").c_str(), &got);  // before reading moves the access time
    EXPECT_EQ(got.actime, times.actime);
    EXPECT_EQ(got.modtime, times.modtime);
    EXPECT_EQ(readFile(dir / "dst"), content);
  }
  EXPECT_FALSE(os_file_copy((dir / "missing").c_str(), (dir / "dst").c_str(), false));
  EXPECT_FALSE(os_file_copy((dir / "src").c_str(), (dir / "no/dir").c_str(), false));
}
