#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include <ostrelled/OS_FileSystem.h>

#include "TempDirectory.h"

namespace {

// Records "D:" and "F:" events and every root it was given.
struct Recorder : IWalkThroughCallback {
  std::vector<std::string> events;
  std::set<std::string> roots;
  void record(const char* kind, const char* relative, const char* root) {
    events.push_back(kind + std::string(relative));
    roots.insert(root);
  }
  void onWalkFile(const char* relative, const char* root) override { record("F:", relative, root); }
  void onWalkDirectory(const char* relative, const char* root) override { record("D:", relative, root); }
  std::set<std::string> eventSet() const { return {events.begin(), events.end()}; }
};

// top/{a, sub/{b, deeper/c}, link -> sub, fifo}
void makeTree(const std::string& root) {
  for (const char* folder : {"/top", "/top/sub", "/top/sub/deeper"}) mkdir((root + folder).c_str(), 0755);
  for (const char* file : {"/top/a", "/top/sub/b", "/top/sub/deeper/c"}) testsupport::writeFile(root + file, "");
  symlink("sub", (root + "/top/link").c_str());
  mkfifo((root + "/top/fifo").c_str(), 0600);
}

using NameFunction = bool (*)(const char*, char*, const DWORD&);

// A name part fetched the way callers do: size query, then the buffer.
std::string namePart(NameFunction part, const char* path) {
  DWORD size = 0;
  EXPECT_TRUE(part(path, nullptr, size));
  std::string buffer(size + 1, '#');
  EXPECT_TRUE(part(path, &buffer[0], size));
  EXPECT_EQ(size, strlen(buffer.c_str()) + 1);
  return buffer.c_str();
}

}  // namespace

TEST(OS_FileSystem, WalkIsPreOrderRelativeAndNeverFollowsLinks) {
  testsupport::TempDirectory dir;
  makeTree(dir.path());
  Recorder recorder;
  os_filesystem_walk_through("top", dir.path().c_str(), &recorder);
  const std::set<std::string> expected = {"D:top", "F:top/a", "D:top/sub", "F:top/sub/b",
                                          "D:top/sub/deeper", "F:top/sub/deeper/c", "F:top/link", "F:top/fifo"};
  EXPECT_EQ(recorder.eventSet(), expected);
  EXPECT_EQ(recorder.events.size(), expected.size());
  EXPECT_EQ(recorder.roots, std::set<std::string>{dir.path() + "/"});
  // Each directory comes before its contents, and its subtree is one unbroken run.
  const auto& events = recorder.events;
  for (size_t i = 0; i < events.size(); ++i) {
    if (events[i][0] != 'D') continue;
    const std::string prefix = events[i].substr(2) + "/";
    auto inside = [&](size_t k) { return events[k].compare(2, prefix.size(), prefix) == 0; };
    size_t end = i + 1;
    while (end < events.size() && inside(end)) ++end;
    for (size_t k = 0; k < events.size(); ++k) EXPECT_TRUE(k > i && k < end ? true : !inside(k)) << events[k];
  }
}

TEST(OS_FileSystem, DepthLimitsAndRootForms) {
  testsupport::TempDirectory dir;
  makeTree(dir.path());
  Recorder none, one, fromRoot, relative, odd;
  os_filesystem_walk_through_ex("top", dir.path().c_str(), 0, &none);
  EXPECT_EQ(none.events, std::vector<std::string>{"D:top"});
  os_filesystem_walk_through_ex("top", (dir.path() + "/").c_str(), 1, &one);
  EXPECT_EQ(one.eventSet(), (std::set<std::string>{"D:top", "F:top/a", "D:top/sub", "F:top/link", "F:top/fifo"}));
  EXPECT_EQ(one.roots, std::set<std::string>{dir.path() + "/"});
  os_filesystem_walk_through_ex("", (dir.path() + "/top/sub").c_str(), 1, &fromRoot);  // the root itself
  EXPECT_EQ(fromRoot.eventSet(), (std::set<std::string>{"D:", "F:b", "D:deeper"}));
  {
    testsupport::WorkingDirectory here(dir.path());  // an empty root: relative to the working directory
    os_filesystem_walk_through("top/sub/deeper", "", &relative);
    EXPECT_EQ(relative.events, (std::vector<std::string>{"D:top/sub/deeper", "F:top/sub/deeper/c"}));
    EXPECT_EQ(relative.roots, std::set<std::string>{""});
  }
  os_filesystem_walk_through_ex("x", "r\\", 0, &odd);  // a trailing backslash is kept, no "/" added
  EXPECT_EQ(odd.roots, std::set<std::string>{"r\\"});
  os_filesystem_walk_through("top", nullptr, &odd);
  os_filesystem_walk_through(nullptr, dir.path().c_str(), &odd);
  os_filesystem_walk_through("top", dir.path().c_str(), nullptr);
  EXPECT_EQ(odd.events.size(), 1u);
}

TEST(OS_FileSystem, NamePartsOfCleanedPaths) {
  struct Row {
    const char *path, *base, *dir, *suffix;
  } const rows[] = {
      {"/usr/lib/", "lib", "/usr/", ""}, {"a\\b\\c", "c", "a/b/", ""}, {"file", "file", ".", ""},
      {"/usr/lib//", "lib", "/usr/", ""}, {"/file", "file", "/", ""}, {"archive.tar.gz", "archive.tar.gz", ".", "gz"},
      {"dir.d/file", "file", "dir.d/", ""}, {"name.", "name.", ".", ""}, {"/u/.profile", ".profile", "/u/", "profile"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(namePart(os_filesystem_base_name, row.path), row.base);
    EXPECT_EQ(namePart(os_filesystem_dir_name, row.path), row.dir);
    EXPECT_EQ(namePart(os_filesystem_file_suffix, row.path), row.suffix);
  }
}

TEST(OS_FileSystem, NameBufferProtocolEdges) {
  char buffer[8] = "#######";
  DWORD size = 3;  // "lib" needs 4
  EXPECT_FALSE(os_filesystem_base_name("/usr/lib", buffer, size));
  EXPECT_EQ(size, 3u);
  EXPECT_STREQ(buffer, "#######");
  EXPECT_FALSE(os_filesystem_dir_name(nullptr, buffer, size));
  for (const char* empty : {"", "/", "\\//"}) {
    size = 5;
    EXPECT_TRUE(os_filesystem_file_suffix(empty, buffer, size));
    EXPECT_EQ(size, 0u);  // 0, not 1, when nothing is left
    EXPECT_STREQ(buffer, "");
    size = 5;
    EXPECT_TRUE(os_filesystem_base_name(empty, nullptr, size));
    EXPECT_EQ(size, 0u);
  }
}
