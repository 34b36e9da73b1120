#include "platform/VolumeTree.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "tests/support/TempDir.h"

namespace {

using skerrow_test::TempDir;

TEST(VolumeTree, PathsNeverLeaveTheRootNorFollowLinks) {
  TempDir dir;
  dir.write("outside/secret", "secret");
  dir.write("v/inside/file", "file");
  ASSERT_EQ(::symlink((dir / "outside").c_str(), (dir / "v/link").c_str()), 0);
  auto volume = platform::VolumeTree::open(dir / "v");
  ASSERT_TRUE(volume);
  EXPECT_TRUE(volume->openFolder("inside"));
  EXPECT_TRUE(volume->openFolder(""));
  EXPECT_FALSE(volume->openFolder("link"));
  EXPECT_FALSE(volume->openFolder("../outside"));
  EXPECT_FALSE(volume->openFolder("/tmp"));
  EXPECT_NE(volume->rename("link/secret", "stolen", false), 0);
  EXPECT_EQ(dir.read("outside/secret"), "secret");
  EXPECT_FALSE(volume->isFolderAt("link"));
  platform::FileAttributes attributes;
  EXPECT_TRUE(volume->attributesAt("link", &attributes));
  EXPECT_TRUE(attributes.isSymbolicLink());
}

TEST(VolumeTree, RenamesReplaceOnlyWhenAsked) {
  TempDir dir;
  dir.write("v/a", "a");
  dir.write("v/b", "b");
  auto volume = platform::VolumeTree::open(dir / "v");
  EXPECT_EQ(volume->rename("a", "b", false), EEXIST);
  EXPECT_EQ(dir.read("v/b"), "b");
  EXPECT_EQ(volume->rename("a", "b", true), 0);
  EXPECT_EQ(dir.read("v/b"), "a");
}

TEST(VolumeTree, TheTrashKeepsEveryItemUnderAFreeName) {
  TempDir dir;
  dir.write("v/x/one", "1");
  auto volume = platform::VolumeTree::open(dir / "v");
  ASSERT_TRUE(volume->moveToTrash("x"));
  dir.write("v/x/two", "2");
  ASSERT_TRUE(volume->moveToTrash("x"));
  const std::string trash = dir / ("v/.Trash-" + std::to_string(::geteuid()));
  EXPECT_EQ(dir.read("v/.Trash-" + std::to_string(::geteuid()) + "/files/x/one"), "1");
  EXPECT_EQ(dir.read("v/.Trash-" + std::to_string(::geteuid()) + "/files/x.2/two"), "2");
  const std::string info = dir.read("v/.Trash-" + std::to_string(::geteuid()) + "/info/x.2.trashinfo");
  EXPECT_EQ(info.rfind("[Trash Info]\nPath=x\nDeletionDate=", 0), 0u) << info;
  EXPECT_FALSE(volume->moveToTrash("missing"));
}

TEST(VolumeTree, TheMountIsTheOneOpenedAndTheVolumeAnswersForItself) {
  TempDir dir;
  dir.mkdir("v");
  auto volume = platform::VolumeTree::open(dir / "v");
  EXPECT_TRUE(volume->isStillMounted());
  EXPECT_TRUE(volume->openedMountIdentifier());
  EXPECT_TRUE(volume->isWritable());
  EXPECT_TRUE(volume->freeBytes());
  EXPECT_GT(volume->blockSize(), 0u);
  EXPECT_FALSE(platform::VolumeTree::open(dir / "missing"));
}

TEST(VolumeFolder, AtomicWritesLeaveNoTemporaryFileAndAreRecognised) {
  TempDir dir;
  dir.mkdir("v");
  auto volume = platform::VolumeTree::open(dir / "v");
  auto root = volume->openFolder("");
  ASSERT_TRUE(root->writeFileAtomically("list", "one", 0600));
  ASSERT_TRUE(root->writeFileAtomically("list", "two", 0644));
  EXPECT_EQ(dir.read("v/list"), "two");
  struct stat st {};
  ASSERT_EQ(::stat((dir / "v/list").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u) << "an existing file keeps its mode";
  EXPECT_EQ(root->entries()->size(), 1u);
  EXPECT_TRUE(platform::VolumeFolder::isTemporaryNameOf(".list.a1B2c3", "list"));
  EXPECT_FALSE(platform::VolumeFolder::isTemporaryNameOf(".list.a1B2c", "list"));
  EXPECT_FALSE(platform::VolumeFolder::isTemporaryNameOf("list.a1B2c3", "list"));
  EXPECT_FALSE(root->writeFileAtomically("../escape", "x"));
}

TEST(VolumeFolder, ChildrenAndMovesByName) {
  TempDir dir;
  dir.write("v/a/f", "f");
  dir.mkdir("v/b");
  auto volume = platform::VolumeTree::open(dir / "v");
  auto a = volume->openFolder("a");
  auto b = volume->openFolder("b");
  EXPECT_EQ(a->moveEntry("f", *b, "g", false), 0);
  EXPECT_EQ(a->moveEntry("f", *b, "g", false), ENOENT);
  EXPECT_TRUE(b->makeChild("c", 0750));
  EXPECT_TRUE(b->makeChild("c", 0700)) << "a folder already there is kept";
  EXPECT_FALSE(b->makeChild("g", 0700)) << "a file stands there";
  EXPECT_TRUE(b->openChild("c"));
  EXPECT_FALSE(b->openChild("g"));
  EXPECT_TRUE(b->setModificationTime("g", platform::FileTime{1300000000, 5}));
  struct stat st {};
  ASSERT_EQ(::stat((dir / "v/b/g").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1300000000);
  EXPECT_EQ(st.st_mtim.tv_nsec, 5);
  EXPECT_TRUE(b->removeEntry("c"));
  EXPECT_FALSE(b->removeEntry(".."));
}

TEST(VolumeFolder, EveryListingStartsFromTheTopWithTheEntriesTypes) {
  TempDir dir;
  dir.write("v/file", "x");
  dir.mkdir("v/folder");
  ASSERT_EQ(::symlink("file", (dir / "v/link").c_str()), 0);
  auto volume = platform::VolumeTree::open(dir / "v");
  auto root = volume->openFolder("");
  using Type = platform::VolumeFolder::Entry::Type;
  for (int listing = 0; listing < 2; ++listing) {
    const auto entries = root->entriesWithTypes();
    ASSERT_TRUE(entries);
    ASSERT_EQ(entries->size(), 3u) << "listing " << listing;
    std::map<std::string, Type> types;
    for (const auto& entry : *entries) types[entry.name] = root->typeOf(entry);
    EXPECT_EQ(types.at("file"), Type::Regular);
    EXPECT_EQ(types.at("folder"), Type::Directory);
    EXPECT_EQ(types.at("link"), Type::SymbolicLink);
  }
  EXPECT_EQ(root->entries()->size(), 3u);
}

}  // namespace
