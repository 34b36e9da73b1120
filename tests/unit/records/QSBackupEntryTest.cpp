#include "Engine/records/QSBackupEntry.h"

#include <gtest/gtest.h>

#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSMemoryCoder.h"
#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/NotificationCenter.h"
#include "platform/PropertyList.h"
#include "tests/support/TempDir.h"

using platform::Date;
using platform::Dictionary;
using platform::Value;

namespace {

const char* kUIDText = "5D0F1C2A-1B2C-11EF-8A3B-0242AC120002";

// Counts the notifications of one name posted by any entry.
class NotificationCounter {
 public:
  explicit NotificationCounter(const std::string& name) {
    id_ = platform::NotificationCenter::defaultCenter().addObserver(name, nullptr, [this](const platform::Notification& n) {
      ++count;
      last = n.objectAs<QSBackupEntry>();
    });
  }
  ~NotificationCounter() { platform::NotificationCenter::defaultCenter().removeObserver(id_); }
  int count = 0;
  std::shared_ptr<QSBackupEntry> last;

 private:
  platform::NotificationCenter::ObserverId id_;
};

std::shared_ptr<QSBackupEntry> fullEntry() {
  auto e = QSBackupEntry::initWithUID(kUIDText);
  e->setMachineName("studio");
  e->setShortUserName("ann");
  e->setLongUserName("Ann Lee");
  e->setUserHome("/home/ann");
  e->setBSDName("sdb1");
  e->setMountPoint("/media/ann/Backup");
  e->setVolumeName("Backup");
  e->setPersistent(true);
  e->setScheduled(true);
  e->setCompletionDate(Date(700000000.0));
  e->setPeriod(7200.0);
  e->setVersionDepth(5);
  e->setExclusionExpression(".*/tmp(/.*)?");
  e->categoryWithIdentifier(kMusicCategoryIdentifier)->setScheduled(true);
  e->categoryWithIdentifier(kEmailCategoryIdentifier)->setScheduled(true);
  e->categoryWithIdentifier(kPicturesCategoryIdentifier)
      ->setUserInfo(std::make_shared<const Dictionary>(Dictionary{{"colour", Value("blue")}, {"n", Value::integer(3)}}));
  return e;
}

}  // namespace


// ---- Fresh entries ----

TEST(QSBackupEntryTest, InitWithUIDSetsInitialValues) {
  auto e = QSBackupEntry::initWithUID(kUIDText);
  EXPECT_EQ(e->uid(), kUIDText);
  EXPECT_EQ(e->machineName(), "");
  EXPECT_EQ(e->sourceFormat(), "");
  EXPECT_EQ(e->shortUserName(), "");
  EXPECT_EQ(e->mountPoint(), "");
  EXPECT_FALSE(e->isPersistent());
  EXPECT_FALSE(e->isScheduled());
  EXPECT_EQ(e->completionDate(), Date::distantPast());
  EXPECT_EQ(e->period(), 0.0);
  EXPECT_EQ(e->versionDepth(), 0u);
  EXPECT_FALSE(e->exclusionExpression());
  EXPECT_FALSE(e->exclusionFilter());
  ASSERT_EQ(e->managedCategories().size(), 6u);
  for (const char* id : kAllCategories) {
    auto c = e->categoryWithIdentifier(id);
    ASSERT_TRUE(c);
    EXPECT_FALSE(c->isScheduled());
    EXPECT_TRUE(c->userInfo()->empty());
  }
  EXPECT_TRUE(e->scheduledCategories().empty());
  EXPECT_EQ(QSBackupEntry::defaultPeriod(), 3600.0);
}

TEST(QSBackupEntryTest, CategoryIdentifiersInTheirOrder) {
  EXPECT_EQ(std::vector<std::string>(kAllCategories.begin(), kAllCategories.end()),
            (std::vector<std::string>{"Pictures", "Music", "Movies", "Mail", "Documents", "Other"}));
}

TEST(QSBackupEntryTest, BackupDirectoryPathConcatenatesWithoutSeparator) {
  auto e = QSBackupEntry::initWithUID(kUIDText);
  e->setMountPoint("/media/disk");
  EXPECT_EQ(e->backupDirectoryPath(), "/media/diskqs skerrow.skstor");
  e->setUserHome("/home/x");
  EXPECT_EQ(&e->name(), &e->userHome());
}

// ---- Archive reading ----

TEST(QSBackupEntryTest, ArchiveMissingCompletionDatePeriodDepthAndScheduleReadAsDefaults) {
  Dictionary archive{{"backup-uid", Value(kUIDText)}};
  auto e = QSBackupEntry::initWithArchive(archive);
  EXPECT_EQ(e->completionDate(), Date::distantPast());
  EXPECT_EQ(e->period(), 0.0);
  EXPECT_EQ(e->versionDepth(), 0u);
  EXPECT_FALSE(e->isScheduled());
  EXPECT_TRUE(e->isPersistent());
  EXPECT_EQ(e->machineName(), "");
}

TEST(QSBackupEntryTest, ArchiveSourceFormatAlwaysReadsAsHFSPlus) {
  for (const char* format : {"ntfs", "fat32", "ext4"}) {
    Dictionary archive{{"backup-uid", Value(kUIDText)}, {"source-format", Value(format)}};
    EXPECT_EQ(QSBackupEntry::initWithArchive(archive)->sourceFormat(), "hfs+");
    EXPECT_EQ(QSBackupEntry::initWithBackupDirMetadata(archive)->sourceFormat(), "hfs+");
  }
  EXPECT_EQ(QSBackupEntry::initWithArchive(Dictionary{{"backup-uid", Value(kUIDText)}})->sourceFormat(), "hfs+");
}

TEST(QSBackupEntryTest, ArchiveWithoutExclusionFilterLeavesItAbsentAndWritesNoKey) {
  auto e = QSBackupEntry::initWithArchive(Dictionary{{"backup-uid", Value(kUIDText)}});
  EXPECT_FALSE(e->exclusionExpression().has_value());
  EXPECT_EQ(e->exclusionFilter(), nullptr);
  EXPECT_FALSE(e->archive().contains("exclusion-filter-directory"));
  EXPECT_FALSE(e->metadataForBackupDir().contains("exclusion-filter-directory"));
}

TEST(QSBackupEntryTest, ArchiveRoundTripKeepsFieldsMakesPersistentAndEmptiesMountData) {
  auto original = fullEntry();
  original->setPersistent(false);
  auto back = QSBackupEntry::initWithArchive(original->archive());
  EXPECT_EQ(back->uid(), original->uid());
  EXPECT_EQ(back->machineName(), "studio");
  EXPECT_EQ(back->shortUserName(), "ann");
  EXPECT_EQ(back->longUserName(), "Ann Lee");
  EXPECT_EQ(back->userHome(), "/home/ann");
  EXPECT_TRUE(back->isScheduled());
  EXPECT_EQ(back->completionDate(), original->completionDate());
  EXPECT_EQ(back->period(), 7200.0);
  EXPECT_EQ(back->versionDepth(), 5u);
  EXPECT_EQ(back->exclusionExpression(), original->exclusionExpression());
  EXPECT_TRUE(back->exclusionFilter());
  EXPECT_EQ(back->scheduledCategories(), original->scheduledCategories());
  EXPECT_EQ(*back->categoryWithIdentifier("Pictures")->userInfo(), *original->categoryWithIdentifier("Pictures")->userInfo());
  EXPECT_TRUE(back->isPersistent());
  EXPECT_EQ(back->mountPoint(), "");
  EXPECT_EQ(back->BSDName(), "");
  EXPECT_EQ(back->volumeName(), "");
}

TEST(QSBackupEntryTest, ArchiveHasExactlyTheDatabaseKeysInOrder) {
  EXPECT_EQ(fullEntry()->archive().keys(),
            (std::vector<std::string>{"backup-uid", "home", "short-name", "long-name", "machine", "source-format",
                                      "scheduled", "managed-categories", "completion-date", "period", "version-depth",
                                      "exclusion-filter-directory"}));
  const Dictionary a = fullEntry()->archive();
  EXPECT_TRUE(a.find("scheduled")->isBoolean());
  EXPECT_TRUE(a.find("period")->isReal());
  EXPECT_TRUE(a.find("version-depth")->isUnsignedInteger());
  EXPECT_TRUE(a.find("completion-date")->isDate());
  EXPECT_EQ(*a.find("source-format"), Value("hfs+"));
}

TEST(QSBackupEntryTest, MetadataHasOnlyTheOnDiskSubset) {
  EXPECT_EQ(fullEntry()->metadataForBackupDir().keys(),
            (std::vector<std::string>{"backup-uid", "home", "short-name", "long-name", "machine", "source-format",
                                      "managed-categories", "version-depth", "exclusion-filter-directory"}));
}

TEST(QSBackupEntryTest, MetadataReaderMakesATransientUnscheduledEntryWithDefaultPeriod) {
  auto original = fullEntry();
  auto back = QSBackupEntry::initWithBackupDirMetadata(original->metadataForBackupDir());
  EXPECT_FALSE(back->isPersistent());
  EXPECT_FALSE(back->isScheduled());
  EXPECT_EQ(back->completionDate(), Date::distantPast());
  EXPECT_EQ(back->period(), 3600.0);
  EXPECT_EQ(back->versionDepth(), 5u);
  EXPECT_EQ(back->shortUserName(), "ann");
  EXPECT_EQ(back->exclusionExpression(), original->exclusionExpression());
  EXPECT_EQ(back->scheduledCategories(), original->scheduledCategories());
}

TEST(QSBackupEntryTest, ArchiveCategoriesReplaceDefaultsAndKeepUnknownIdentifiers) {
  platform::Array categories{
      Value(Dictionary{{"identifier", Value("Music")}, {"scheduled", Value::boolean(true)}}),
      Value(Dictionary{{"identifier", Value("Podcasts")}, {"scheduled", Value::boolean(true)},
                       {"user-info", Value(Dictionary{{"a", Value("b")}})}}),
      Value("not a category"),
      Value(Dictionary{{"scheduled", Value::boolean(true)}}),
  };
  auto e = QSBackupEntry::initWithArchive(Dictionary{{"backup-uid", Value(kUIDText)}, {"managed-categories", Value(categories)}});
  EXPECT_EQ(e->managedCategories().size(), 7u);
  EXPECT_EQ(e->scheduledCategories(), (std::set<std::string>{"Music", "Podcasts"}));
  EXPECT_FALSE(e->categoryWithIdentifier("Pictures")->isScheduled());
  EXPECT_EQ(*e->categoryWithIdentifier("Podcasts")->userInfo(), (Dictionary{{"a", Value("b")}}));
}

TEST(QSBackupEntryTest, ArchiveOfWrongValueKindsReadsDefaults) {
  Dictionary archive{{"backup-uid", Value(kUIDText)},
                     {"home", Value::integer(5)},
                     {"version-depth", Value(platform::Array{})},
                     {"completion-date", Value("yesterday")},
                     {"managed-categories", Value("none")}};
  auto e = QSBackupEntry::initWithArchive(archive);
  EXPECT_EQ(e->userHome(), "");
  EXPECT_EQ(e->versionDepth(), 0u);
  EXPECT_EQ(e->completionDate(), Date::distantPast());
  EXPECT_EQ(e->managedCategories().size(), 6u);
}

// ---- Round trips through files and the port coding ----

TEST(QSBackupEntryTest, ArchiveThroughPropertyListFileRoundTrip) {
  skerrow_test::TempDir dir;
  for (auto original : {fullEntry(), QSBackupEntry::initWithUID(kUIDText)}) {
    const std::string path = dir / "backupdb.plist";
    ASSERT_TRUE(platform::PropertyList::writeFile(path, Value(original->archive())));
    auto read = platform::PropertyList::readFile(path);
    ASSERT_TRUE(read && read->isDictionary());
    auto back = QSBackupEntry::initWithArchive(*read->asDictionary());
    EXPECT_EQ(back->archive(), original->archive());
    EXPECT_EQ(back->completionDate(), original->completionDate());
    EXPECT_EQ(back->exclusionExpression(), original->exclusionExpression());
  }
}

TEST(QSBackupEntryTest, MetadataFileRoundTrip) {
  skerrow_test::TempDir dir;
  for (auto original : {fullEntry(), QSBackupEntry::initWithUID(kUIDText)}) {
    const std::string path = dir.mkdir(original->uid()) + "/" + kMetadataFileName;
    ASSERT_TRUE(platform::PropertyList::writeFile(path, Value(original->metadataForBackupDir())));
    EXPECT_NE(dir.read(original->uid() + "/" + kMetadataFileName).find("<?xml"), std::string::npos);
    auto read = platform::PropertyList::readFile(path);
    ASSERT_TRUE(read && read->isDictionary());
    EXPECT_EQ(QSBackupAttributes(*read->asDictionary()).uid(), original->uid());
    auto back = QSBackupEntry::initWithBackupDirMetadata(*read->asDictionary());
    EXPECT_EQ(back->metadataForBackupDir(), original->metadataForBackupDir());
  }
}

TEST(QSBackupEntryTest, PortCodingRoundTripWithEveryField) {
  auto original = fullEntry();
  QSMemoryCoder coder;
  original->encodeWithCoder(coder.encoder());
  auto back = QSBackupEntry::initWithCoder(coder.decoder());
  EXPECT_EQ(coder.remaining(), 0u);
  EXPECT_EQ(back->description(), original->description());
  EXPECT_EQ(back->isPersistent(), original->isPersistent());
  EXPECT_EQ(back->mountPoint(), "/media/ann/Backup");
  EXPECT_EQ(back->BSDName(), "sdb1");
  EXPECT_EQ(back->volumeName(), "Backup");
  EXPECT_EQ(back->completionDate(), original->completionDate());
  EXPECT_EQ(back->period(), 7200.0);
  EXPECT_TRUE(back->exclusionFilter());
  EXPECT_NE(back->categoryWithIdentifier("Music"), original->categoryWithIdentifier("Music"));
  // The port coding keeps sub-second dates exactly.
  original->setCompletionDate(Date(700000000.123456789));
  QSMemoryCoder again;
  original->encodeWithCoder(again.encoder());
  EXPECT_EQ(QSBackupEntry::initWithCoder(again.decoder())->completionDate(), Date(700000000.123456789));
}

TEST(QSBackupEntryTest, PortCodingRoundTripWithOptionalFieldsAbsent) {
  auto original = QSBackupEntry::initWithUID(kUIDText);
  QSMemoryCoder coder;
  original->encodeWithCoder(coder.encoder());
  auto back = QSBackupEntry::initWithCoder(coder.decoder());
  EXPECT_FALSE(back->exclusionExpression());
  EXPECT_FALSE(back->exclusionFilter());
  EXPECT_EQ(back->description(), original->description());
}

TEST(QSBackupEntryTest, PortCodingOrderPutsMountPointBeforeBSDName) {
  auto e = fullEntry();
  QSMemoryCoder coder;
  e->encodeWithCoder(coder.encoder());
  QSDecoder& d = coder.decoder();
  EXPECT_TRUE(d.decodeBool());   // isScheduled
  EXPECT_TRUE(d.decodeBool());   // isPersistent
  EXPECT_EQ(d.decodeString(), kUIDText);
  EXPECT_EQ(d.decodeString(), "studio");
  EXPECT_EQ(d.decodeString(), "");  // sourceFormat: not set on a fresh entry
  EXPECT_EQ(d.decodeString(), "ann");
  EXPECT_EQ(d.decodeString(), "Ann Lee");
  EXPECT_EQ(d.decodeString(), "/home/ann");
  EXPECT_EQ(d.decodeString(), "/media/ann/Backup");
  EXPECT_EQ(d.decodeString(), "sdb1");
  EXPECT_EQ(d.decodeString(), "Backup");
}

TEST(QSBackupEntryTest, PortDecodingOfADamagedStreamRaises) {
  QSMemoryCoder coder;
  fullEntry()->encodeWithCoder(coder.encoder());
  coder.dropFirstItem();
  EXPECT_THROW(QSBackupEntry::initWithCoder(coder.decoder()), platform::Exception);
}

TEST(QSBackupEntryTest, TravelsByCopyUnlessAReferenceIsAsked) {
  QSMemoryCoder byCopy(false), byRef(true);
  EXPECT_EQ(QSBackupEntry::replacementObjectForPortCoder(byCopy.encoder()), QSPortReplacement::ByCopy);
  EXPECT_EQ(QSBackupEntry::replacementObjectForPortCoder(byRef.encoder()), QSPortReplacement::ByReference);
}

// ---- Categories and notifications ----

TEST(QSBackupEntryTest, AddCategoryTwiceKeepsTheFirstEntryAndItsUserInfo) {
  auto e = QSBackupEntry::initWithUID(kUIDText);
  e->addCategoryWithIdentifier("Podcasts");
  auto first = e->categoryWithIdentifier("Podcasts");
  first->setUserInfo(std::make_shared<const Dictionary>(Dictionary{{"k", Value("v")}}));
  e->addCategoryWithIdentifier("Podcasts");
  EXPECT_EQ(e->categoryWithIdentifier("Podcasts"), first);
  EXPECT_EQ(*e->categoryWithIdentifier("Podcasts")->userInfo(), (Dictionary{{"k", Value("v")}}));
}

TEST(QSBackupEntryTest, CategoryScheduleChangePostsExactlyOneNotificationAndNoneAfterRemoval) {
  auto e = QSBackupEntry::initWithUID(kUIDText);
  NotificationCounter counter(QSScheduledCategoriesChangedNotification);
  auto music = e->categoryWithIdentifier("Music");
  music->setScheduled(true);
  EXPECT_EQ(counter.count, 1);
  EXPECT_EQ(counter.last, e);
  e->removeCategoryWithIdentifier("Music");
  music->setScheduled(false);
  EXPECT_EQ(counter.count, 1);
  EXPECT_EQ(e->categoryWithIdentifier("Music"), nullptr);
}

TEST(QSBackupEntryTest, SettersPostOnEveryCallWithTheEntryAsObject) {
  auto e = QSBackupEntry::initWithUID(kUIDText);
  NotificationCounter depth(QSVersionDepthChangedNotification), scheduled(QSScheduledStatusChangedNotification),
      persistent(QSPersistentStatusChangedNotification), mount(QSMountPointChangedNotification);
  e->setVersionDepth(3);
  e->setVersionDepth(3);
  e->setScheduled(false);
  e->setPersistent(true);
  e->setMountPoint("/m");
  e->setMountPoint("/m");
  EXPECT_EQ(depth.count, 2);
  EXPECT_EQ(scheduled.count, 1);
  EXPECT_EQ(persistent.count, 1);
  EXPECT_EQ(mount.count, 2);
  EXPECT_EQ(depth.last, e);
  NotificationCounter any("");
  e->setMachineName("m");
  e->setPeriod(1);
  e->setCompletionDate(Date(1));
  e->setBSDName("b");
  e->setVolumeName("v");
  e->setExclusionExpression("x");
  EXPECT_EQ(any.count, 0);
}

TEST(QSBackupEntryTest, DestroyedEntryStopsObservingItsCategories) {
  std::shared_ptr<QSCategoryEntry> music;
  {
    auto e = QSBackupEntry::initWithUID(kUIDText);
    music = e->categoryWithIdentifier("Music");
    EXPECT_EQ(music->observationCount("scheduled"), 1u);
  }
  EXPECT_EQ(music->observationCount("scheduled"), 0u);
  NotificationCounter counter(QSScheduledCategoriesChangedNotification);
  music->setScheduled(true);
  EXPECT_EQ(counter.count, 0);
}

TEST(QSBackupEntryTest, SetManagedCategoriesStoresCopiesNeverTheArgumentsEntries) {
  auto a = fullEntry();
  auto b = QSBackupEntry::initWithUID("OTHER");
  b->setManagedCategories(a->managedCategories());
  EXPECT_EQ(b->scheduledCategories(), a->scheduledCategories());
  EXPECT_NE(b->categoryWithIdentifier("Music"), a->categoryWithIdentifier("Music"));
  NotificationCounter counter(QSScheduledCategoriesChangedNotification);
  b->categoryWithIdentifier("Music")->setScheduled(false);
  EXPECT_EQ(counter.count, 1);
  EXPECT_EQ(counter.last, b);
  EXPECT_TRUE(a->categoryWithIdentifier("Music")->isScheduled());
  // The old categories of b are no longer observed by it.
  b->setManagedCategories(b->managedCategories());
  EXPECT_EQ(b->managedCategories().size(), 6u);
  for (const auto& [id, c] : b->managedCategories()) EXPECT_EQ(c->observationCount("scheduled"), 1u) << id;
}

// ---- Copies ----

TEST(QSBackupEntryTest, MutableCopyHasDistantPastAndZeroPeriodWhateverTheSourceHeld) {
  auto original = fullEntry();
  auto copy = original->mutableCopy();
  EXPECT_EQ(copy->completionDate(), Date::distantPast());
  EXPECT_EQ(copy->period(), 0.0);
  EXPECT_EQ(copy->versionDepth(), 0u);
  EXPECT_EQ(copy->volumeName(), "");
  EXPECT_EQ(copy->uid(), original->uid());
  EXPECT_TRUE(copy->isScheduled());
  EXPECT_TRUE(copy->isPersistent());
  EXPECT_EQ(copy->sourceFormat(), "hfs+");
  EXPECT_EQ(copy->mountPoint(), original->mountPoint());
  EXPECT_EQ(copy->BSDName(), original->BSDName());
  EXPECT_EQ(copy->exclusionExpression(), original->exclusionExpression());
  EXPECT_EQ(copy->scheduledCategories(), original->scheduledCategories());
  EXPECT_NE(copy->categoryWithIdentifier("Music"), original->categoryWithIdentifier("Music"));
  EXPECT_EQ(copy->categoryWithIdentifier("Pictures")->userInfo(), original->categoryWithIdentifier("Pictures")->userInfo());
}

TEST(QSBackupEntryTest, MutableCopyPostsItsSettersNotifications) {
  auto original = fullEntry();
  NotificationCounter scheduled(QSScheduledStatusChangedNotification), persistent(QSPersistentStatusChangedNotification),
      mount(QSMountPointChangedNotification), depth(QSVersionDepthChangedNotification);
  auto copy = original->mutableCopy();
  EXPECT_EQ(scheduled.count, 1);
  EXPECT_EQ(persistent.count, 1);
  EXPECT_EQ(mount.count, 1);
  EXPECT_EQ(depth.count, 0);
  EXPECT_EQ(mount.last, copy);
}

// ---- Exclusion filter ----

TEST(QSBackupEntryTest, ExclusionPredicateMatchesCaseInsensitivelyAndOnlyTheWholeString) {
  auto e = QSBackupEntry::initWithUID(kUIDText);
  e->setExclusionExpression("/home/ann/Temp");
  ASSERT_TRUE(e->exclusionFilter());
  EXPECT_TRUE(e->exclusionFilter()->evaluateWithObject("/HOME/ANN/temp"));
  EXPECT_FALSE(e->exclusionFilter()->evaluateWithObject("/home/ann/Temp/file"));
  EXPECT_FALSE(e->exclusionFilter()->evaluateWithObject("x/home/ann/Temp"));
  e->setExclusionExpression(std::nullopt);
  EXPECT_FALSE(e->exclusionExpression());
  EXPECT_FALSE(e->exclusionFilter());
}

TEST(QSBackupEntryTest, InvalidExclusionExpressionIsKeptWithoutFilterAndLogged) {
  platform::LogCapture log;
  auto e = QSBackupEntry::initWithArchive(
      Dictionary{{"backup-uid", Value(kUIDText)}, {"exclusion-filter-directory", Value("(unclosed")}});
  EXPECT_EQ(e->exclusionExpression(), "(unclosed");
  EXPECT_FALSE(e->exclusionFilter());
  EXPECT_EQ(*e->archive().find("exclusion-filter-directory"), Value("(unclosed"));
  EXPECT_TRUE(log.contains("does not compile"));
}

// ---- Description ----

TEST(QSBackupEntryTest, DescriptionFormat) {
  auto e = QSBackupEntry::initWithUID(kUIDText);
  e->setMachineName("studio");
  e->setShortUserName("ann");
  e->setPeriod(60);
  e->setVersionDepth(2);
  e->removeCategoryWithIdentifier("Pictures");
  e->removeCategoryWithIdentifier("Music");
  e->removeCategoryWithIdentifier("Movies");
  e->removeCategoryWithIdentifier("Mail");
  e->removeCategoryWithIdentifier("Other");
  e->categoryWithIdentifier("Documents")->setScheduled(true);
  EXPECT_EQ(e->description(),
            "\n   machineName: studio\n  sourceFormat: \n shortUserName: ann\n  longUserName: \n      userHome: \n"
            "    mountPoint: \n   BSDNodeName: \n    volumeName: \n  isPersistent: NO\n   isScheduled: NO\n"
            "completionDate: 0001-01-01 00:00:00 +0000\n        period: 60.000000\n version depth: 2\n"
            " excl.  filter: (null)\nmanagedCategories:\n{\n    Documents = \n   isScheduled: YES\n      userInfo: (empty)\n;\n}\n");
}
