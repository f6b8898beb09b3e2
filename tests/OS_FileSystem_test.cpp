#include <set>

#include "TestSupport.h"

using Events = std::multiset<std::string>;

// Records "D:" and "F:" events in order, and every root it was given.
struct Recorder : IWalkThroughCallback {
  std::vector<std::string> events;
  std::set<std::string> roots;
  void onWalkFile(const char* relative, const char* root) override { record("F:", relative, root); }
  void onWalkDirectory(const char* relative, const char* root) override { record("D:", relative, root); }
  void record(const char* kind, const char* relative, const char* root) {
    events.push_back(kind + std::string(relative));
    roots.insert(root);
  }
  Events unordered() const { return {events.begin(), events.end()}; }
};

TEST(OS_FileSystem, WalkVisitsInPreOrderWithinItsDepth) {
  TempDirectory dir(true);
  // top/{a, sub/{b, deeper/c}, link -> sub, fifo}
  for (const char* folder : {"top", "top/sub", "top/sub/deeper"}) mkdir(folder, 0755);
  for (const char* file : {"top/a", "top/sub/b", "top/sub/deeper/c"}) writeFile(file, "");
  symlink("sub", "top/link");
  mkfifo("top/fifo", 0600);
  Recorder all, none, one;
  os_filesystem_walk_through("top", dir.path.c_str(), &all);
  EXPECT_EQ(all.unordered(), (Events{"D:top", "F:top/a", "D:top/sub", "F:top/sub/b", "D:top/sub/deeper",
                                     "F:top/sub/deeper/c", "F:top/link", "F:top/fifo"}));
  EXPECT_EQ(all.roots, std::set<std::string>{dir.path + "/"});
  for (size_t i = 1; i < all.events.size(); ++i) {  // pre-order: each entry's directory is still open
    const std::string path = all.events[i].substr(2), parent = path.substr(0, path.rfind('/') + 1);
    EXPECT_EQ((all.events[i - 1].substr(2) + "/").rfind(parent, 0), 0u) << path;
  }
  os_filesystem_walk_through_ex("top", dir.path.c_str(), 0, &none);
  EXPECT_EQ(none.events, std::vector<std::string>{"D:top"});
  os_filesystem_walk_through_ex("top", (dir.path + "/").c_str(), 1, &one);
  EXPECT_EQ(one.unordered(), (Events{"D:top", "F:top/a", "D:top/sub", "F:top/link", "F:top/fifo"}));
  EXPECT_EQ(one.roots, std::set<std::string>{dir.path + "/"});
  os_filesystem_walk_through("top", "", nullptr);  // no callback: walks without reporting
}
