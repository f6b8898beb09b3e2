#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include <ostrelled/OS_Folder.h>

#include "OS/OS_Shell.h"
#include "TempDirectory.h"

using testsupport::readFile;
using testsupport::writeFile;

namespace {

// Each test works inside its own directory, so relative paths and anything a
// broken command might create stay there.
class OS_Folder : public ::testing::Test {
 protected:
  testsupport::TempDirectory m_dir;
  testsupport::WorkingDirectory m_here{m_dir.path()};
};

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

}  // namespace

TEST_F(OS_Folder, BadPathsAreRefusedAndExistWantsADirectory) {
  for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_FALSE(os_folder_exist(bad) || os_folder_create(bad) || os_folder_remove(bad, true) ||
                 os_folder_move(bad, "x") || os_folder_move("x", bad) || os_folder_copy(bad, "x", false) ||
                 os_folder_copy("x", bad, true));
  }
  mkdir("d", 0755);
  writeFile("f", "");
  symlink("d", "l");
  EXPECT_TRUE(os_folder_exist("d") && os_folder_exist("d//") && os_folder_exist("l"));
  EXPECT_FALSE(os_folder_exist("f") || os_folder_exist("missing"));
  EXPECT_THROW(os_folder_exist("//"), std::out_of_range);
}

TEST_F(OS_Folder, CreateMakesParentsWithFullModeAndTakesTildeLiterally) {
  const mode_t old = umask(077);
  EXPECT_TRUE(os_folder_create("a/b//c/"));
  EXPECT_TRUE(os_folder_create((m_dir / "abs/x").c_str()));
  umask(old);
  struct stat info {};
  ASSERT_EQ(stat("a/b/c", &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0777u);
  EXPECT_TRUE(os_folder_exist("abs/x") && os_folder_create("a/b"));
  writeFile("a/file", "");
  EXPECT_FALSE(os_folder_create("a/file/sub"));
  EXPECT_FALSE(os_folder_create("~/ostrelled_never"));
  mkdir("~", 0755);
  EXPECT_TRUE(os_folder_create("~/made"));
  EXPECT_TRUE(exists("~/made"));
}

TEST_F(OS_Folder, RemoveAndMove) {
  os_folder_create("full/inner");
  writeFile("full/inner/f", "x");
  EXPECT_FALSE(os_folder_remove("full", false));
  EXPECT_TRUE(exists("full/inner/f"));
  os_folder_create("dst");
  EXPECT_TRUE(os_folder_move("full/", "dst"));  // an existing destination receives the source
  EXPECT_EQ(readFile("dst/full/inner/f"), "x");
  EXPECT_FALSE(os_folder_move("missing", "elsewhere"));
  EXPECT_TRUE(os_folder_remove("dst/full/inner/", true));
  EXPECT_TRUE(os_folder_remove("dst/full//", false));
  EXPECT_FALSE(exists("dst/full"));
}

TEST_F(OS_Folder, CopyNestsIntoExistingAndFillsMissingDestinations) {
  os_folder_create("src/sub");
  writeFile("src/f", "1");
  writeFile("src/sub/g", "2");
  writeFile("src/.hidden", "");
  os_folder_create("existing");
  EXPECT_TRUE(os_folder_copy((m_dir / "src").c_str(), "existing", false));
  EXPECT_EQ(readFile("existing/src/sub/g"), "2");
  EXPECT_TRUE(os_folder_copy("src/", "fresh", false));
  EXPECT_EQ(readFile("fresh/f"), "1");
  EXPECT_FALSE(exists("fresh/src") || exists("fresh/.hidden"));  // the shell's "/*" skips dot entries
  // A source without any separator names its copy by its last character only.
  EXPECT_TRUE(os_folder_copy("src", "existing/", false));
  EXPECT_TRUE(exists("existing/c/f"));
  os_folder_create("empty");
  EXPECT_FALSE(os_folder_copy((m_dir / "empty").c_str(), "existing", false));
}

TEST_F(OS_Folder, CopyKeepingExistingFilesReportsAwksStatus) {
  os_folder_create("src");
  writeFile("src/old", "new content");
  writeFile("src/added", "a");
  os_folder_create("dst/src");
  writeFile("dst/src/old", "old content");
  EXPECT_TRUE(os_folder_copy((m_dir / "src").c_str(), "dst/", true));
  EXPECT_EQ(readFile("dst/src/old"), "old content");
  EXPECT_EQ(readFile("dst/src/added"), "a");
  EXPECT_TRUE(os_folder_copy((m_dir / "src/").c_str(), "dst", false));
  EXPECT_EQ(readFile("dst/src/old"), "new content");
  // cp answers its question, then fails on a directory over a file.
  os_folder_create("src/zdir");
  writeFile("dst/src/zdir", "");
  EXPECT_FALSE(os_folder_copy((m_dir / "src").c_str(), "dst", false));
  EXPECT_TRUE(os_folder_copy((m_dir / "src").c_str(), "dst", true));
}

TEST_F(OS_Folder, HostilePathsAreTakenLiterallyByEveryCommand) {
  for (const char* name : {"with space", "dq\"uote", "sq'uote", "dollar$HOME", "$(touch pwned)", "`touch pwned2`",
                           "back\\slash", "it's \"$(touch pwned3)\"", "new\nline"}) {
    SCOPED_TRACE(name);
    const std::string sourceName = std::string("s ") + name, source = m_dir / sourceName;
    const std::string target = std::string("t ") + name;
    ASSERT_TRUE(os_folder_create(source.c_str()));
    writeFile(source + "/f", "x");
    ASSERT_TRUE(os_folder_copy(source.c_str(), target.c_str(), false));  // contents into a new target
    EXPECT_EQ(readFile(target + "/f"), "x");
    // Now nested into it, named after the last component ("\\" separates too),
    // over an existing file that makes cp ask and be answered "n".
    const std::string nested = target + "/" + sourceName.substr(sourceName.find_last_of("/\\") + 1);
    ASSERT_TRUE(os_folder_create(nested.c_str()));
    writeFile(nested + "/f", "kept");
    writeFile(source + "/g", "y");
    ASSERT_TRUE(os_folder_copy((source + "/").c_str(), target.c_str(), true));
    EXPECT_EQ(readFile(nested + "/f"), "kept");
    EXPECT_EQ(readFile(nested + "/g"), "y");
    EXPECT_TRUE(os_folder_move(target.c_str(), (target + " moved").c_str()));
    EXPECT_TRUE(os_folder_remove((target + " moved").c_str(), true));
    EXPECT_TRUE(os_folder_remove(source.c_str(), true));
    EXPECT_FALSE(exists(source) || exists(target + " moved"));
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
  EXPECT_TRUE(statusSucceeded(0));
  EXPECT_FALSE(statusSucceeded(-1) || statusSucceeded(1 << 8) || statusSucceeded(9));
}
