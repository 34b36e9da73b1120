#include "Engine/files/QSFSNode.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "Engine/files/QSFSNodeVisitor.h"
#include "platform/Exception.h"
#include "tests/support/TempDir.h"

namespace {

// The record of a regular file.
QSFSFileAttributes fileRecord(int64_t size, double created, double modified) {
  return QSFSFileAttributes{.size = size,
                            .type = kQSFSTypeFile,
                            .fileTypeIsARegularFile = true,
                            .creationDate = created,
                            .modificationDate = modified};
}

std::shared_ptr<QSFSVersion> version(const std::string& name, uint64_t index) {
  return QSFSVersion::initWithFileName_attributes_index(name, QSFSFileAttributes{}, index);
}

// Root /home/ann with Documents/report.txt.
struct SmallTree {
  std::shared_ptr<QSFSMutableNode> root = QSFSMutableNode::initWithPath("/home/ann");
  std::shared_ptr<QSFSMutableNode> documents = QSFSMutableNode::initWithPath("Documents");
  std::shared_ptr<QSFSMutableNode> report = QSFSMutableNode::initWithPath("report.txt");
  SmallTree() {
    root->addNode(documents);
    documents->addNode(report);
  }
};

class Recorder : public QSFSNodeVisitor {
 public:
  std::vector<std::string> calls;
  void startTraversalOfRoot(const std::shared_ptr<QSFSNode>& n) override { calls.push_back("begin " + std::string(n->path())); }
  bool startVisit(const std::shared_ptr<QSFSNode>& n) override {
    calls.push_back("start " + std::string(n->path()));
    return false;  // ignored by the node's own walk
  }
  void finishVisit(const std::shared_ptr<QSFSNode>& n) override { calls.push_back("finish " + std::string(n->path())); }
  void finishTraversalOfRoot(const std::shared_ptr<QSFSNode>& n) override { calls.push_back("end " + std::string(n->path())); }
};

}  // namespace

TEST(QSFSNodeTest, NewNodeHasNoChildrenNoVersionsAndZeroAttributes) {
  auto n = QSFSNode::init();
  EXPECT_EQ(n->children().count(), 0u);
  EXPECT_FALSE(n->hasVersions());
  EXPECT_EQ(n->parent(), nullptr);
  EXPECT_EQ(n->sourceAttributes(), QSFSFileAttributes{});
  EXPECT_EQ(n->destinationAttributes(), QSFSFileAttributes{});
  EXPECT_EQ(n->latestVersion(), nullptr);
}

TEST(QSFSNodeTest, EmptyVersionsArrayHasVersionsButNoLatestOrOldest) {
  QSFSVersionArray none;
  auto n = QSFSNode::initWithFileName_versions("a.txt", &none);
  EXPECT_TRUE(n->hasVersions());
  EXPECT_EQ(n->latestVersion(), nullptr);
  EXPECT_EQ(n->oldestVersion(), nullptr);
  EXPECT_FALSE(QSFSNode::initWithFileName_versions("b.txt", nullptr)->hasVersions());
}

TEST(QSFSNodeTest, AddingPhotoJPGAfterPhotoJpgReplacesTheFirstChild) {
  auto parent = QSFSMutableNode::initWithPath("/home/ann/Pictures");
  auto first = QSFSMutableNode::initWithPath("photo.jpg");
  auto second = QSFSMutableNode::initWithPath("Photo.JPG");
  parent->addNode(first);
  parent->addNode(second);
  EXPECT_EQ(parent->children().count(), 1u);
  EXPECT_EQ(parent->childWithName("PHOTO.jpg"), second);
  EXPECT_EQ(second->parent(), parent.get());
  EXPECT_EQ(parent->children().keyEnumerator(), std::vector<std::string>{"photo.jpg"});
}

TEST(QSFSNodeTest, ChildLookupIgnoresUnicodeCase) {
  auto parent = QSFSMutableNode::initWithPath("/h");
  parent->addNode(QSFSMutableNode::initWithPath("Été.txt"));
  EXPECT_NE(parent->childWithName("été.TXT"), nullptr);
  EXPECT_EQ(parent->childWithName("ete.txt"), nullptr);
}

TEST(QSFSNodeTest, ChildLookupComparesLowerCasedKeysEvenWhenOnlyOneNameIsAscii) {
  auto parent = QSFSMutableNode::initWithPath("/h");
  parent->addNode(QSFSMutableNode::initWithPath("\u212A.txt"));  // KELVIN SIGN lower-cases to "k"
  EXPECT_NE(parent->childWithName("k.txt"), nullptr);
  EXPECT_NE(parent->childWithName("K.TXT"), nullptr);
  parent->addNode(QSFSMutableNode::initWithPath("K.txt"));  // the same key: it replaces the first
  EXPECT_EQ(parent->children().count(), 1u);
  EXPECT_EQ(parent->childWithName("\u212A.txt")->path(), "K.txt");
  // Bytes that are not UTF-8 keep their case, only ASCII letters fold.
  parent->addNode(QSFSMutableNode::initWithPath("A\xff.bin"));
  EXPECT_NE(parent->childWithName("a\xff.BIN"), nullptr);
  EXPECT_EQ(parent->childWithName("a\xfe.bin"), nullptr);
  EXPECT_EQ(parent->children().count(), 2u);
}

TEST(QSFSNodeTest, ManyChildrenStayFindableAfterRemovals) {
  auto parent = QSFSMutableNode::initWithPath("/h");
  for (int i = 0; i < 2000; ++i) parent->addNode(QSFSMutableNode::initWithPath("File" + std::to_string(i)));
  EXPECT_EQ(parent->children().count(), 2000u);
  auto& children = const_cast<QSFSChildMap&>(parent->children());
  for (int i = 0; i < 2000; i += 3) children.removeObjectForKey("file" + std::to_string(i));
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(parent->childWithName("FILE" + std::to_string(i)) == nullptr, i % 3 == 0) << i;
}

TEST(QSFSNodeTest, VersionsAreHeldNewestFirst) {
  QSFSVersionArray v = {version("a@3.txt", 3), version("a@10.txt", 10), version("a@7.txt", 7)};
  auto n = QSFSNode::initWithFileName_versions("a.txt", &v);
  ASSERT_EQ(n->versions().size(), 3u);
  EXPECT_EQ(n->versions()[0]->index(), 10u);
  EXPECT_EQ(n->versions()[1]->index(), 7u);
  EXPECT_EQ(n->versions()[2]->index(), 3u);
  EXPECT_EQ(n->latestVersion()->index(), 10u);
  EXPECT_EQ(n->oldestVersion()->index(), 3u);
  auto m = QSFSMutableNode::initWithPath("a.txt");
  m->_setVersions(v);  // kept in the caller's order
  EXPECT_EQ(m->latestVersion()->index(), 3u);
  m->setVersions(v);
  EXPECT_EQ(m->latestVersion()->index(), 10u);
}

TEST(QSFSNodeTest, CompareVersionsPutsTheHigherIndexFirst) {
  EXPECT_EQ(compareVersions(*version("a@2", 2), *version("a@1", 1), nullptr), kQSOrderedAscending);
  EXPECT_EQ(compareVersions(*version("a@1", 1), *version("a@2", 2), nullptr), kQSOrderedDescending);
  EXPECT_EQ(compareVersions(*version("a@1", 1), *version("b@1", 1), nullptr), kQSOrderedSame);
  // Compared as unsigned 64-bit numbers.
  EXPECT_EQ(compareVersions(*version("a", UINT64_MAX), *version("b", 1), nullptr), kQSOrderedAscending);
}

TEST(QSFSNodeTest, StoredNameWithNegativeOrUnreadableNumberYieldsNoVersion) {
  EXPECT_EQ(QSFSVersion::versionWithFileName_attributes("a@-5.txt", {}), nullptr);
  EXPECT_EQ(QSFSVersion::versionWithFileName_attributes("a@99999999999999999999.txt", {}), nullptr);
  EXPECT_EQ(QSFSVersion::versionWithFileName_attributes("report.txt", {}), nullptr);
  auto v = QSFSVersion::versionWithFileName_attributes("report@12.txt", fileRecord(5, 1, 2));
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v->index(), 12u);
  EXPECT_EQ(v->fileName(), "report@12.txt");
  EXPECT_EQ(v->attributes().size, 5);
}

TEST(QSFSNodeTest, RelativePathOfAChildOfTheRootIsItsNameAndFullPathOfTheRootIsItsPath) {
  SmallTree t;
  EXPECT_EQ(t.documents->relativePath(), "Documents");
  EXPECT_EQ(t.report->relativePath(), "Documents/report.txt");
  EXPECT_EQ(t.root->relativePath(), "");
  EXPECT_EQ(t.root->fullPath(), "/home/ann");
  EXPECT_EQ(t.report->fullPath(), "/home/ann/Documents/report.txt");
  EXPECT_EQ(t.report->fileName(), "report.txt");
  EXPECT_EQ(t.root->fileName(), "ann");
}

TEST(QSFSNodeTest, FullPathToVersionAtIndex) {
  SmallTree t;
  t.report->setVersions({version("report@0.txt", 0), version("report@1.txt", 1)});
  EXPECT_EQ(t.report->fullPathToLatestVersion(), "/home/ann/Documents/report@1.txt");
  EXPECT_EQ(t.report->fullPathToVersionAtIndex(1), "/home/ann/Documents/report@0.txt");
  EXPECT_THROW(t.report->fullPathToVersionAtIndex(2), platform::Exception);
  auto orphan = QSFSMutableNode::initWithPath("x.txt");
  orphan->setVersions({version("x@0.txt", 0)});
  EXPECT_FALSE(orphan->fullPathToLatestVersion().has_value());
}

namespace {
// A folder holding `count` stored versions of a.txt (indices 0..count-1).
std::shared_ptr<QSFSMutableNode> storedVersions(const skerrow_test::TempDir& dir, int count) {
  QSFSVersionArray v;
  for (int i = 0; i < count; ++i) {
    const std::string name = "a@" + std::to_string(i) + ".txt";
    dir.write(name, "x");
    v.push_back(version(name, static_cast<uint64_t>(i)));
  }
  auto node = QSFSMutableNode::initWithPath("a.txt");
  node->setVersions(v);
  return node;
}
int filesIn(const skerrow_test::TempDir& dir) {
  int n = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir.path())) {
    (void)e;
    ++n;
  }
  return n;
}
}  // namespace

TEST(QSFSNodeTest, PruningFiveVersionsToKeepThreeLeavesTheTwoNewest) {
  skerrow_test::TempDir dir;
  auto node = storedVersions(dir, 5);
  node->removeOldestVersionsOfFile_fromBackupFolder(3, dir.path());
  EXPECT_EQ(filesIn(dir), 2);
  EXPECT_TRUE(std::filesystem::exists(dir / "a@4.txt"));
  EXPECT_TRUE(std::filesystem::exists(dir / "a@3.txt"));
  EXPECT_EQ(node->versions().size(), 5u);  // the list is left as it was
}

TEST(QSFSNodeTest, PruningTwoVersionsToKeepThreeDeletesNothing) {
  skerrow_test::TempDir dir;
  auto node = storedVersions(dir, 2);
  node->removeOldestVersionsOfFile_fromBackupFolder(3, dir.path());
  EXPECT_EQ(filesIn(dir), 2);
}

TEST(QSFSNodeTest, PruningThreeVersionsToKeepThreeDeletesTheOldest) {
  skerrow_test::TempDir dir;
  auto node = storedVersions(dir, 3);
  node->removeOldestVersionsOfFile_fromBackupFolder(3, dir.path());
  EXPECT_EQ(filesIn(dir), 2);
  EXPECT_FALSE(std::filesystem::exists(dir / "a@0.txt"));
}

TEST(QSFSNodeTest, PruningWithKeepZeroDeletesAllThenRaises) {
  skerrow_test::TempDir dir;
  auto node = storedVersions(dir, 2);
  EXPECT_THROW(node->removeOldestVersionsOfFile_fromBackupFolder(0, dir.path()), platform::Exception);
  EXPECT_EQ(filesIn(dir), 0);
}

TEST(QSFSNodeTest, DeepCopyHasNoParentSharesVersionsAndIsIndependent) {
  SmallTree t;
  t.report->setVersions({version("report@0.txt", 0)});
  t.report->setSourceAttributes(fileRecord(10, 1, 2));
  auto copy = t.documents->deepCopy();
  EXPECT_EQ(copy->parent(), nullptr);
  EXPECT_EQ(copy->path(), "Documents");
  auto copiedReport = copy->childWithName("report.txt");
  ASSERT_NE(copiedReport, nullptr);
  EXPECT_NE(copiedReport, t.report);
  EXPECT_EQ(copiedReport->parent(), copy.get());
  EXPECT_EQ(copiedReport->versions(), t.report->versions());  // the same stored-copy objects
  EXPECT_EQ(copiedReport->sourceAttributes().size, 10);
  copy->addNode(QSFSMutableNode::initWithPath("new.txt"));
  EXPECT_EQ(t.documents->children().count(), 1u);
  EXPECT_EQ(copy->children().count(), 2u);
}

TEST(QSFSNodeTest, DepthFirstTraverseVisitsEveryNodeIgnoringStartAnswers) {
  SmallTree t;
  Recorder r;
  t.root->depthFirstTraverseWith(r);
  EXPECT_EQ(r.calls, (std::vector<std::string>{"begin /home/ann", "start /home/ann", "start Documents", "start report.txt",
                                              "finish report.txt", "finish Documents", "finish /home/ann",
                                              "end /home/ann"}));
}

TEST(QSFSNodeTest, ChangingChildrenDuringTheWalkRaises) {
  SmallTree t;
  t.documents->addNode(QSFSMutableNode::initWithPath("b.txt"));
  class Mutator : public Recorder {
   public:
    std::shared_ptr<QSFSMutableNode> target;
    bool startVisit(const std::shared_ptr<QSFSNode>& n) override {
      if (n->path() == "report.txt") target->addNode(QSFSMutableNode::initWithPath("c.txt"));
      return true;
    }
  } m;
  m.target = t.documents;
  EXPECT_THROW(t.root->depthFirstTraverseWith(m), platform::Exception);
}

TEST(QSFSNodeTest, DestinationAttributesAndDescription) {
  auto n = QSFSMutableNode::initWithPath("a.txt");
  n->setSourceAttributes(fileRecord(12, 0, 60));
  n->setDestinationAttributes(fileRecord(7, 3600, 7200));
  EXPECT_EQ(n->destinationAttributes().size, 7);
  const std::string d = n->description();
  EXPECT_EQ(d.substr(0, d.find("\n\tversions=")),
            "path=a.txt\n\tsrcAttributes.size=12\n\tsrcAttributes.type=2\n\tsrcAttributes.creationDate=2001-01-01 00:00:00 "
            "+0000\n\tsrcAttributes=2001-01-01 00:01:00 +0000\n\tdstAttributes.size=7\n\tdstAttributes.type=2\n\t"
            "dstAttributes.creationDate=2001-01-01 01:00:00 +0000\n\tdstAttributes.modificationDate=2001-01-01 02:00:00 "
            "+0000");
  EXPECT_NE(d.find("\n\tversions=(null)\n\tchildren=<QSCaseInsensitiveMap: 0x"), std::string::npos) << d;
}

TEST(QSFSNodeTest, AFileWithoutSetDestinationAttributesHasItsNewestCopys) {
  QSFSVersionArray versions{
      QSFSVersion::initWithFileName_attributes_index("a@0.txt", fileRecord(5, 1, 2), 0),
      QSFSVersion::initWithFileName_attributes_index("a@4.txt", fileRecord(9, 3, 4), 4),
  };
  auto n = QSFSMutableNode::initWithFileName_versions("a.txt", &versions);
  EXPECT_EQ(n->destinationAttributes(), (fileRecord(9, 3, 4)));
  n->setDestinationAttributes(fileRecord(7, 0, 0));
  EXPECT_EQ(n->destinationAttributes().size, 7);
}

TEST(QSFSNodeTest, SettingVersionsAgainReplacesTheWholeListWhateverItsLength) {
  auto n = QSFSMutableNode::initWithPath("a.txt");
  n->setVersions({version("a@1.txt", 1), version("a@5.txt", 5), version("a@3.txt", 3)});
  EXPECT_EQ(n->versionCount(), 3u);
  EXPECT_EQ(n->oldestVersion()->index(), 1u);
  n->setVersions({version("a@7.txt", 7)});
  EXPECT_EQ(n->versionCount(), 1u);
  EXPECT_EQ(n->latestVersion()->index(), 7u);
  EXPECT_EQ(n->oldestVersion()->index(), 7u);
  EXPECT_FALSE(n->fullPathToLatestVersion().has_value());  // no folder to find it in
  n->setVersions({});
  EXPECT_TRUE(n->hasVersions());
  EXPECT_EQ(n->versionCount(), 0u);
  EXPECT_EQ(n->latestVersion(), nullptr);
  n->setVersions({version("a@2.txt", 2), version("a@9.txt", 9)});
  EXPECT_EQ(n->versions().size(), 2u);
  EXPECT_EQ(n->versions()[0]->index(), 9u);
  EXPECT_EQ(n->versions()[1]->index(), 2u);
}

TEST(QSFSNodeTest, AListOfCopiesWithAMissingOneKeepsTheOthersInOrder) {
  auto n = QSFSMutableNode::initWithPath("a.txt");
  n->_setVersions({nullptr, version("a@4.txt", 4), nullptr, version("a@2.txt", 2)});
  EXPECT_TRUE(n->hasVersions());
  ASSERT_EQ(n->versionCount(), 2u);
  EXPECT_EQ(n->latestVersion()->index(), 4u);
  EXPECT_EQ(n->oldestVersion()->index(), 2u);
  n->_setVersions({nullptr});
  EXPECT_TRUE(n->hasVersions());
  EXPECT_EQ(n->versionCount(), 0u);
}
