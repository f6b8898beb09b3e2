#include <glob.h>

#include "TestSupport.h"

// Each test in its own directory: relative paths and whatever a broken command makes stay there.
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

namespace {

// Names that a shell would read as code, quoting or patterns; any command run leaves "pwned*".
const char* const kHostileNames[] = {"with space",
                                     "dq\"uote",
                                     "sq'uote",
                                     "dollar$HOME",
                                     "$(touch pwned1)",
                                     "`touch pwned2`",
                                     "back\\slash",
                                     "semi;touch pwned3",
                                     "pipe|touch pwned4",
                                     "amp&touch pwned5",
                                     "star*",
                                     "new\nline",
                                     "it's \"$(touch pwned6)\"",
                                     "'\\''$(touch pwned7)'\\''",
                                     "\\\"; touch pwned8; \\\""};

// Names that rm, mv and cp would take as options.
const char* const kDashNames[] = {"-rf", "-i", "--help", "-v x", "-"};

bool anythingRan() {
  glob_t found{};
  const bool any = glob("pwned*", 0, nullptr, &found) == 0;
  globfree(&found);
  return any;
}

// The commands that the folder and system functions hand to the shell.
using OS_Shell = OS_Folder;

// Its result races (awk answering cp's question may meet a broken pipe): only what it did is checked.
void keepingCopy(const char* source, const char* target) { os_folder_copy(source, target, true); }

}  // namespace

// Copy into a missing and an existing target, move and remove, on hostile names and names like options.
TEST_F(OS_Shell, FolderCommandsActOnTheLiteralPath) {
  std::vector<std::string> names(std::begin(kHostileNames), std::end(kHostileNames));
  names.insert(names.end(), std::begin(kDashNames), std::end(kDashNames));
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const std::string source = name[0] == '-' ? name : m_dir / name, target = "-t" + name;
    ASSERT_TRUE(os_folder_create((source + "/sub").c_str()));
    writeFile(source + "/one", "new");
    writeFile(source + "/.hidden", "");  // the shell's "/*" skips dot entries
    ASSERT_TRUE(os_folder_copy(source.c_str(), target.c_str(), false));
    EXPECT_TRUE(readFile(target + "/one") == "new" && exists(target + "/sub") && !exists(target + "/.hidden"));
    // Nested under what follows the last separator ("\\" is one), else under the last character: intended.
    const size_t separator = source.find_last_of("/\\");
    const std::string nested =
        target + "/" + source.substr(separator == std::string::npos ? source.size() - 1 : separator + 1);
    ASSERT_TRUE(os_folder_create(nested.c_str()));
    writeFile(nested + "/one", "kept");
    writeFile(source + "/two", "y");
    keepingCopy(source.c_str(), target.c_str());  // cp's question about "one" answered "n"
    EXPECT_EQ(readFile(nested + "/one") + readFile(nested + "/two"), "kepty");
    EXPECT_FALSE(os_folder_remove(target.c_str(), false));  // not empty
    EXPECT_TRUE(os_folder_move((target + "/").c_str(), source.c_str()) && exists(source + "/" + target + "/one"));
    EXPECT_TRUE(os_folder_remove((source + "//").c_str(), true));
    EXPECT_FALSE(exists(source) || exists(target));
  }
  EXPECT_FALSE(anythingRan());
}

// An unprotected trailing backslash would swallow the closing quote.
TEST_F(OS_Shell, CopyTakesANameEndingInABackslashLiterally) {
  ASSERT_TRUE(os_folder_create("src\\/sub"));
  writeFile("src\\/f", "x");
  ASSERT_TRUE(os_folder_copy("src\\", "dst\\", false));
  EXPECT_TRUE(readFile("dst\\/f") == "x" && exists("dst\\/sub"));
  // Into the existing target, read with "\\" as a separator: the nested folder is "dst\\c".
  writeFile("src\\/g", "y");
  keepingCopy("src\\", "dst\\");
  EXPECT_TRUE(readFile("dst\\c/g") == "y" && readFile("dst\\c/f") == "x");
  EXPECT_FALSE(anythingRan());
}

// A program named with shell syntax is found by its name; its status stays ours.
TEST_F(OS_Shell, KillMatchesTheLiteralNameAndLeavesTheChildToItsParent) {
  for (const char* name : kHostileNames) EXPECT_FALSE(os_system_kill_application(name)) << name;
  EXPECT_FALSE(os_system_kill_application("trailing\\") || anythingRan());
  const std::string name = "k\"'$;|&*`\\" + std::to_string(getpid() % 1000);
  ASSERT_EQ(symlink("/bin/sleep", name.c_str()), 0);
  EXPECT_TRUE(os_system_run_application((m_dir / name).c_str(), "30", false));
  EXPECT_TRUE(waitUntil([&] { return os_system_kill_application(name.c_str()); })) << "not found by its name in 5 s";
  int status = 0;
  EXPECT_TRUE(waitUntil([&] { return waitpid(-1, &status, WNOHANG) > 0; }) && WTERMSIG(status) == SIGKILL);
  EXPECT_FALSE(os_system_kill_application(name.c_str())) << "killed twice";
}
