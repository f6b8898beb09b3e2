#include <stdexcept>

#include <ostrelled/OS_Folder.h>
#include "TestSupport.h"

using namespace testsupport;

// Each test works inside its own directory, so relative paths and anything a
// broken command might create stay there.
struct OS_Folder : ::testing::Test {
  TempDirectory m_dir{true};
};

static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

TEST_F(OS_Folder, ExistWantsADirectory) {
  for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
    errno = 12345;  // any system call made on them would change it
    EXPECT_FALSE(os_folder_exist(bad) || os_folder_create(bad) || os_folder_remove(bad, true) ||
                 os_folder_move(bad, "x") || os_folder_move("x", bad) || os_folder_copy(bad, "x", false) ||
                 os_folder_copy("x", bad, true));
    EXPECT_EQ(errno, 12345);
  }
  writeFile("f", "");
  symlink(".", "l");
  EXPECT_TRUE(os_folder_exist(".//") && os_folder_exist("l"));
  EXPECT_FALSE(os_folder_exist("f") || os_folder_exist("missing"));
  EXPECT_THROW(os_folder_exist("//"), std::out_of_range);
}

TEST_F(OS_Folder, CreateMakesEveryParentWithFullMode) {
  const mode_t old = umask(077);
  EXPECT_TRUE(os_folder_create("a/b//c/"));
  umask(old);
  EXPECT_EQ(std::filesystem::status("a/b").permissions(), std::filesystem::perms::all);
  writeFile("a/file", "");
  // Through a file, and under "~", which is not the home directory but a missing name here.
  EXPECT_FALSE(os_folder_create("a/file/sub") || os_folder_create("~/made"));
  mkdir("~", 0755);
  EXPECT_TRUE(os_folder_create("~/made") && exists("~/made"));
}
