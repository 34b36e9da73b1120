#include "Engine/files/QSSourceTreeBuilder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "Engine/files/FSSourceTraversal.h"
#include "Engine/files/QSBlackList.h"
#include "platform/PropertyList.h"
#include "tests/support/TempDir.h"

namespace {
int64_t sourceFiles(const QSTally& t, const char* category) {
  int64_t f = 0, b = 0;
  t.getSourceFileCount_byteCount_forCategory(&f, &b, category);
  return f;
}
int64_t sourceBytes(const QSTally& t, const char* category) {
  int64_t f = 0, b = 0;
  t.getSourceFileCount_byteCount_forCategory(&f, &b, category);
  return b;
}
}  // namespace

TEST(QSSourceTreeBuilderTest, BuildsTheTreeBelowARootNamedSlashAndCountsEachFileInItsCategories) {
  auto shipped = platform::PropertyList::readFile(QSBlackList::defaultSettingsFilePath());
  ASSERT_TRUE(shipped);
  QSBlackList::initializeWithInfoDictionary(*shipped->asDictionary());
  skerrow_test::TempDir dir;
  const std::string home = dir.mkdir("ann");
  dir.write("ann/Documents/report.txt", "12345");
  dir.write("ann/Pictures/Trip/a.jpg", "1234567890");
  dir.write("ann/Library/prefs.plist", "12");
  dir.write("ann/notes.txt", "1");
  dir.write("ann/.cache/skipped", "xxxx");
  ASSERT_EQ(::symlink("notes.txt", (home + "/link").c_str()), 0);

  QSSourceTreeBuilder builder;
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(home, nullptr, builder);
  const auto& root = builder.root();
  EXPECT_EQ(root->path(), "/");
  EXPECT_EQ(root->sourceAttributes().type, kQSFSTypeFolder);
  auto report = root->childWithName("documents")->childWithName("REPORT.txt");
  ASSERT_NE(report, nullptr);
  EXPECT_EQ(report->fullPath(), "/Documents/report.txt");
  EXPECT_EQ(report->sourceAttributes().size, 5);
  EXPECT_TRUE(report->sourceAttributes().fileTypeIsARegularFile);
  EXPECT_EQ(root->childWithName("link")->sourceAttributes().type, kQSFSTypeFile);
  EXPECT_FALSE(root->childWithName("link")->sourceAttributes().fileTypeIsARegularFile);
  EXPECT_EQ(root->childWithName(".cache"), nullptr);

  const QSTally& t = *builder.tally();
  EXPECT_EQ(sourceFiles(t, "Documents"), 1);
  EXPECT_EQ(sourceBytes(t, "Documents"), 5);
  EXPECT_EQ(sourceFiles(t, "Pictures"), 1);
  EXPECT_EQ(sourceFiles(t, "Mail"), 1);   // a file directly in Library counts as Mail and Other
  EXPECT_EQ(sourceFiles(t, "Other"), 3);  // Library/prefs.plist, notes.txt, link
  EXPECT_EQ(builder.nodeStack().size(), 0u);
}

TEST(FSDepthFirstVisitorTest, BaseVisitorMakesNoNodesSoTheWalkEntersNothing) {
  skerrow_test::TempDir dir;
  dir.write("h/a/b.txt", "x");
  FSDepthFirstVisitor visitor;
  FSSourceTraversal(nullptr).recurseAtUserHome_withExclusionPredicate_visitor(dir / "h", nullptr, visitor);
  EXPECT_EQ(visitor.nodeStack().size(), 0u);
  EXPECT_EQ(visitor.nodeAtPath_attributes("/x", platform::FileAttributes{}), nullptr);
  EXPECT_EQ(visitor.groupNodeAtPath_versions("/x", {}), nullptr);
}
