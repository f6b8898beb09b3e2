// Walks a directory tree to a limited depth and lists what it found in natural
// order (file9 before file10), the way a file browser would.
//
// Shows: os_filesystem_walk_through_ex with a depth limit and a callback
// object, the relative paths it reports, and sorting names with
// os_clibrary_string_intelligent_less. The tree is made in a fresh temporary
// directory with os_folder_create/os_file_create and removed at the end.

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include <ostrelled/OS_CLibrary.h>
#include <ostrelled/OS_File.h>
#include <ostrelled/OS_FileSystem.h>
#include <ostrelled/OS_Folder.h>

namespace {

// The walk calls onWalkDirectory for each directory it enters (the start
// directory as "") and onWalkFile for everything else; paths are relative
// to the root, and root + path is the full path.
class Collector : public IWalkThroughCallback {
 public:
  std::vector<std::string> entries;
  void onWalkFile(const char* relativeFilePath, const char*) override { entries.push_back(relativeFilePath); }
  void onWalkDirectory(const char* relativeDirPath, const char*) override {
    if (*relativeDirPath != '\0') entries.push_back(std::string(relativeDirPath) + "/");
  }
};

}  // namespace

int main() {
  char root[] = "/tmp/directory_walk_XXXXXX";
  if (mkdtemp(root) == nullptr) return 1;
  const std::string base = root;
  const char* files[] = {"file10.txt", "file9.txt", "file1.txt", "sub/notes2", "sub/notes11", "sub/deeper/hidden"};
  bool made = os_folder_create((base + "/sub/deeper").c_str());
  for (const char* file : files) made = made && os_file_create((base + "/" + file).c_str());

  // Depth 2: the root's entries and the entries of its subdirectories;
  // sub/deeper is reported but not opened, so sub/deeper/hidden is not seen.
  Collector found;
  os_filesystem_walk_through_ex("", root, 2, &found);

  // Natural order is no total order (file007 and file7 are neither less nor
  // greater), but it is a strict weak order on names without leading zeros.
  std::sort(found.entries.begin(), found.entries.end(), [](const std::string& a, const std::string& b) {
    return os_clibrary_string_intelligent_less(a.c_str(), b.c_str());
  });
  std::string listing;
  for (const std::string& entry : found.entries) {
    printf("  %s\n", entry.c_str());
    listing += entry + " ";
  }

  os_folder_remove(root, true);
  const std::string expected = "file1.txt file9.txt file10.txt sub/ sub/deeper/ sub/notes2 sub/notes11 ";
  printf("directory_walk: %zu entries within depth 2, in natural order: %s\n", found.entries.size(),
         made && listing == expected ? "as expected" : "WRONG");
  return made && listing == expected ? 0 : 1;
}
