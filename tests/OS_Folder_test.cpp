#include <gtest/gtest.h>

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include <ostrelled/OS_Folder.h>

#include "OS/OS_Shell.h"
#include "TempDirectory.h"

using namespace testsupport;

// Each test works inside its own directory, so relative paths and anything a
// broken command might create stay there.
struct OS_Folder : ::testing::Test {
  TempDirectory m_dir{true};
};

static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

TEST_F(OS_Folder, BadPathsAreRefusedAndExistWantsADirectory) {
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

TEST_F(OS_Folder, CreateMakesParentsWithFullModeAndTakesTildeLiterally) {
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

// Copy into a missing and then into an existing target, move into an existing
// directory and remove, all on names the shell would otherwise interpret.
TEST_F(OS_Folder, CopyMoveAndRemoveTakeHostilePathsLiterally) {
  for (const char* name : {"with space", "dq\"uote", "sq'uote", "dollar$HOME", "$(touch pwned)", "`touch pwned2`",
                           "back\\slash", "it's \"$(touch pwned3)\"", "new\nline"}) {
    SCOPED_TRACE(name);
    const std::string source = m_dir / ("s " + std::string(name)), target = std::string("t ") + name;
    ASSERT_TRUE(os_folder_create((source + "/sub").c_str()));
    writeFile(source + "/f", "new");
    writeFile(source + "/.hidden", "");  // the shell's "/*" skips dot entries
    ASSERT_TRUE(os_folder_copy(source.c_str(), target.c_str(), false));
    EXPECT_TRUE(readFile(target + "/f") == "new" && exists(target + "/sub") && !exists(target + "/.hidden"));
    // Nested under the last component ("\\" separates too); cp's question
    // about the existing f is answered "n".
    const std::string nested = target + "/" + source.substr(source.find_last_of("/\\") + 1);
    ASSERT_TRUE(os_folder_create(nested.c_str()));
    writeFile(nested + "/f", "kept");
    writeFile(source + "/g", "y");
    ASSERT_TRUE(os_folder_copy((source + "/").c_str(), target.c_str(), true));
    EXPECT_EQ(readFile(nested + "/f") + readFile(nested + "/g"), "kepty");
    EXPECT_FALSE(os_folder_remove(target.c_str(), false));  // not empty
    EXPECT_TRUE(os_folder_move((target + "/").c_str(), source.c_str()) && exists(source + "/" + target + "/f"));
    EXPECT_TRUE(os_folder_remove((source + "//").c_str(), true));
    EXPECT_FALSE(exists(source) || exists(target));
  }
  EXPECT_FALSE(exists("pwned") || exists("pwned2") || exists("pwned3"));
}

TEST(OS_Shell, OrdinaryPathsGiveTheTemplateByteForByte) {
  using namespace OS::Shell;
  const std::string p = "/tmp/some dir/with-ordinary_chars.~+=@%!#&;|<>(){}*?[]";
  EXPECT_EQ(formatCommand(kRemoveTree, {p.c_str()}), "rm \"" + p + "\" -rf");
  EXPECT_EQ(formatCommand(kMove, {p.c_str(), "b"}), "mv \"" + p + "\" \"b\"");
  EXPECT_EQ(formatCommand(kCopyOverwriting, {p.c_str(), "b/"}), "cp -arf \"" + p + "\"/* \"b/\"");
  EXPECT_EQ(formatCommand(kCopyKeeping, {p.c_str(), "b/"}),
            "awk 'BEGIN { cmd=\"cp -ari '\\''" + p + "'\\''/* '\\''b/'\\''/\";print \"n\"|cmd;}'");
  EXPECT_EQ(formatCommand(kKill, {nullptr}), "killall -9 \"\"");
}
