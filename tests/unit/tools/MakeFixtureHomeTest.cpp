// The synthetic home generator used by tests and benchmarks must make the
// same tree from the same seed, and the tree the options ask for.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/support/FileSystemImage.h"
#include "tests/support/TempDir.h"

namespace {

// Every item below `root`: its kind, size, mode, modification time and (for files) contents hash.
std::map<std::string, std::string> listing(const std::string& root) {
  std::map<std::string, std::string> out;
  for (auto it = std::filesystem::recursive_directory_iterator(root); it != std::filesystem::recursive_directory_iterator();
       ++it) {
    struct stat st;
    ::lstat(it->path().c_str(), &st);
    std::ostringstream line;
    line << (st.st_mode & S_IFMT) << ' ' << st.st_size << ' ' << (st.st_mode & 07777) << ' ' << st.st_mtim.tv_sec << '.'
         << st.st_mtim.tv_nsec;
    if (S_ISREG(st.st_mode)) {
      std::ifstream in(it->path(), std::ios::binary);
      const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      line << ' ' << std::hash<std::string>()(data);
    }
    out[it->path().string().substr(root.size())] = line.str();
  }
  return out;
}

size_t regularFiles(const std::map<std::string, std::string>& items) {
  size_t n = 0;
  for (const auto& [path, line] : items)
    if (line.rfind(std::to_string(S_IFREG) + " ", 0) == 0) ++n;
  return n;
}

}  // namespace

TEST(MakeFixtureHomeTest, SameSeedMakesTheSameTreeAndAnotherSeedAnother) {
  skerrow_test::TempDir dir;
  for (const char* name : {"a", "b", "c"}) {
    const std::string seed = std::string(name) == "c" ? "8" : "7";
    const auto r = skerrow_test::runCommand({SKERROW_MAKE_HOME, "-q", "-n", "300", "-b", "3M", "-s", seed, dir / name});
    ASSERT_EQ(r.exitCode, 0) << r.output;
  }
  const auto a = listing(dir / "a"), b = listing(dir / "b"), c = listing(dir / "c");
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
  EXPECT_EQ(regularFiles(a), 300u);
}
