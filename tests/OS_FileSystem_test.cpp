#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
  void onWalkFile(const char* relative, const char* root) override {
    events.push_back(std::string("F:") + relative);
    roots.insert(root);
  }
  void onWalkDirectory(const char* relative, const char* root) override {
    events.push_back(std::string("D:") + relative);
    roots.insert(root);
  }
  std::set<std::string> eventSet() const { return {events.begin(), events.end()}; }
};

// top/{a, sub/{b, deeper/c}, link -> sub, fifo}
void makeTree(const std::string& root) {
  mkdir((root + "/top").c_str(), 0755);
  mkdir((root + "/top/sub").c_str(), 0755);
  mkdir((root + "/top/sub/deeper").c_str(), 0755);
  testsupport::writeFile(root + "/top/a", "");
  testsupport::writeFile(root + "/top/sub/b", "");
  testsupport::writeFile(root + "/top/sub/deeper/c", "");
  symlink("sub", (root + "/top/link").c_str());
  mkfifo((root + "/top/fifo").c_str(), 0600);
}

struct NameRow {
  const char* path;
  const char* base;
  const char* dir;
  const char* suffix;
};

std::string namePart(bool (*part)(const char*, char*, const DWORD&), const char* path, DWORD& size) {
  size = 0;
  EXPECT_TRUE(part(path, nullptr, size));
  std::string buffer(size + 1, '#');
  EXPECT_TRUE(part(path, &buffer[0], size));
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
    size_t j = i + 1;
    while (j < events.size() && events[j].compare(2, prefix.size(), prefix) == 0) ++j;
    for (size_t k = 0; k < events.size(); ++k) {
      if (k <= i || k >= j) EXPECT_NE(events[k].compare(2, prefix.size(), prefix), 0) << events[k];
    }
  }
}

TEST(OS_FileSystem, DepthLimitsStopOpeningDirectories) {
  testsupport::TempDirectory dir;
  makeTree(dir.path());
  Recorder none;
  os_filesystem_walk_through_ex("top", dir.path().c_str(), 0, &none);
  EXPECT_EQ(none.events, std::vector<std::string>{"D:top"});
  Recorder one;
  os_filesystem_walk_through_ex("top", (dir.path() + "/").c_str(), 1, &one);
  EXPECT_EQ(one.eventSet(), (std::set<std::string>{"D:top", "F:top/a", "D:top/sub", "F:top/link", "F:top/fifo"}));
  EXPECT_EQ(one.roots, std::set<std::string>{dir.path() + "/"});
}

TEST(OS_FileSystem, RootFormsDecideThePathsHandedOut) {
  testsupport::TempDirectory dir;
  makeTree(dir.path());
  Recorder fromRoot;  // an empty start directory is the root itself
  os_filesystem_walk_through_ex("", (dir.path() + "/top/sub").c_str(), 1, &fromRoot);
  EXPECT_EQ(fromRoot.eventSet(), (std::set<std::string>{"D:", "F:b", "D:deeper"}));
  {
    testsupport::WorkingDirectory here(dir.path());
    Recorder relative;  // an empty root leaves paths relative to the working directory
    os_filesystem_walk_through("top/sub/deeper", "", &relative);
    EXPECT_EQ(relative.events, (std::vector<std::string>{"D:top/sub/deeper", "F:top/sub/deeper/c"}));
    EXPECT_EQ(relative.roots, std::set<std::string>{""});
  }
  Recorder backslash;  // a trailing backslash is kept and no "/" is added
  os_filesystem_walk_through_ex("x", "r\\", 0, &backslash);
  EXPECT_EQ(backslash.roots, std::set<std::string>{"r\\"});
  os_filesystem_walk_through("top", dir.path().c_str(), nullptr);  // walks without reporting
  os_filesystem_walk_through("missing", dir.path().c_str(), &backslash);
  EXPECT_EQ(backslash.events.back(), "D:missing");
}

TEST(OS_FileSystem, NamePartsOfCleanedPaths) {
  const NameRow rows[] = {
      {"/usr/lib/", "lib", "/usr/", ""},      {"a\\b\\c", "c", "a/b/", ""},
      {"file", "file", ".", ""},              {"/usr/lib//", "lib", "/usr/", ""},
      {"a\\b", "b", "a/", ""},                {"/file", "file", "/", ""},
      {"archive.tar.gz", "archive.tar.gz", ".", "gz"}, {"dir.d/file", "file", "dir.d/", ""},
      {"name.", "name.", ".", ""},            {"/home/u/.profile", ".profile", "/home/u/", "profile"},
  };
  for (const NameRow& row : rows) {
    SCOPED_TRACE(row.path);
    DWORD size = 0;
    EXPECT_EQ(namePart(os_filesystem_base_name, row.path, size), row.base);
    EXPECT_EQ(size, strlen(row.base) + 1);
    EXPECT_EQ(namePart(os_filesystem_dir_name, row.path, size), row.dir);
    EXPECT_EQ(size, strlen(row.dir) + 1);
    EXPECT_EQ(namePart(os_filesystem_file_suffix, row.path, size), row.suffix);
    EXPECT_EQ(size, strlen(row.suffix) + 1);
  }
}

TEST(OS_FileSystem, NameBufferProtocolEdges) {
  char buffer[8] = "#######";
  DWORD size = 4;  // "lib" needs 4
  EXPECT_TRUE(os_filesystem_base_name("/usr/lib", buffer, size));
  EXPECT_STREQ(buffer, "lib");
  size = 3;
  strcpy(buffer, "#######");
  EXPECT_FALSE(os_filesystem_base_name("/usr/lib", buffer, size));
  EXPECT_EQ(size, 3u);
  EXPECT_STREQ(buffer, "#######");
  EXPECT_FALSE(os_filesystem_dir_name(nullptr, buffer, size));
  for (const char* empty : {"", "/", "\\//"}) {
    size = 5;
    EXPECT_TRUE(os_filesystem_file_suffix(empty, buffer, size));
    EXPECT_EQ(size, 0u);  // 0, not 1, for nothing left
    EXPECT_STREQ(buffer, "");
    size = 5;
    EXPECT_TRUE(os_filesystem_base_name(empty, nullptr, size));
    EXPECT_EQ(size, 0u);
  }
}
