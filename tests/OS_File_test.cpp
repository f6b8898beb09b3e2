#include "TestSupport.h"

TEST(OS_File, BadPathsAreRefusedWithoutSystemCalls) {
  OS_FILE_TIME times{};
  for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
    errno = 12345;  // any system call made on them would change it
    EXPECT_FALSE(os_file_is_relative_path(bad) || os_file_exist(bad) || os_file_create(bad) || os_file_remove(bad) ||
                 os_file_gettime(bad, &times) || os_file_settime(bad, &times) || os_file_move(bad, "/tmp") ||
                 os_file_move("/tmp", bad) || os_file_copy(bad, "/tmp/x", false) || os_file_copy("/tmp", bad, false));
    EXPECT_EQ(errno, 12345);
  }
}

TEST(OS_File, FileFunctionsIgnoreTrailingSlashes) {
  TempDirectory dir(true);
  const mode_t old = umask(077);
  EXPECT_TRUE(os_file_create("file/"));
  EXPECT_EQ(umask(old), 077u);  // the caller's mask is back
  EXPECT_EQ(std::filesystem::status("file").permissions(), std::filesystem::perms::all);
  writeFile("file", "content");
  EXPECT_TRUE(os_file_create("file") && readFile("file") == "content");
  symlink("file", "link");
  symlink("missing", "dangling");
  for (const char* name : {"file", "file///", "link"}) EXPECT_TRUE(os_file_exist(name)) << name;
  for (const char* name : {"dangling", "missing", ".", "./"}) EXPECT_FALSE(os_file_exist(name)) << name;
  EXPECT_TRUE(os_file_remove("file//") && os_file_remove("dangling"));
  EXPECT_FALSE(os_file_remove("file") || os_file_remove("./") || os_file_create("no/such/file"));
  // Kept: stripping the trailing slashes runs off the start of the string.
  EXPECT_THROW(os_file_exist("/"), std::out_of_range);
  EXPECT_THROW(os_file_create("//"), std::out_of_range);
  EXPECT_THROW(os_file_remove("/"), std::out_of_range);
}

TEST(OS_File, CopyOverwritesKeepingTheTimes) {
  TempDirectory dir(true);
  std::string big;  // several copy blocks and a partial one, no period that could hide a misplaced block
  for (int i = 0; i < 3 * 8192 + 123; ++i) big += static_cast<char>(i * 31 + i / 7);
  OS_FILE_TIME times{1100000000, 1300000000}, got{};
  for (const std::string& content : {std::string(), big}) {
    writeFile("src", content);
    os_file_settime("src", &times);
    writeFile("dst", std::string(40000, 'z'));  // longer than any source: must be truncated
    EXPECT_TRUE(os_file_copy("src", "dst", true));
    // The times first: reading moves the access time.
    EXPECT_TRUE(os_file_gettime("dst", &got) && got.actime == times.actime && got.modtime == times.modtime);
    EXPECT_EQ(readFile("dst"), content);
  }
  EXPECT_FALSE(os_file_copy("missing", "dst", false) || os_file_copy("src", "no/dir", false));
}
