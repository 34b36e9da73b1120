#include "Engine/records/QSBackupAttributes.h"

#include <gtest/gtest.h>

using platform::Dictionary;
using platform::Value;

TEST(QSBackupAttributesTest, ConstantsHaveTheirExactValues) {
  EXPECT_STREQ(kUID, "backup-uid");
  EXPECT_STREQ(kQSBackupPlistKey_SourceFormat, "source-format");
  EXPECT_STREQ(kMachineName, "machine");
  EXPECT_STREQ(kLongName, "long-name");
  EXPECT_STREQ(kShortName, "short-name");
  EXPECT_STREQ(kHomeDir, "home");
  EXPECT_STREQ(kManagedCategories, "managed-categories");
  EXPECT_STREQ(kScheduledState, "scheduled");
  EXPECT_STREQ(kPersistentState, "persistent");
  EXPECT_STREQ(kMountPoint, "mount-point");
  EXPECT_STREQ(kBSDName, "bsd-name");
  EXPECT_STREQ(kCompletionDate, "completion-date");
  EXPECT_STREQ(kPeriod, "period");
  EXPECT_STREQ(kVersionDepth, "version-depth");
  EXPECT_STREQ(kExclusionFilterDirectory, "exclusion-filter-directory");
  EXPECT_STREQ(kQSBackupPlistKey_SourceFormat_HFSPlus, "hfs+");
  EXPECT_STREQ(kQSBackupPlistKey_Home, "home");
  EXPECT_STREQ(kQSBackupPlistKey_LongUsername, "long-name");
  EXPECT_STREQ(kQSBackupPlistKey_Machine, "machine");
  EXPECT_STREQ(kQSBackupPlistKey_CompletionDate, "completion-date");
  EXPECT_STREQ(kQSBackupPlistKey_Period, "period");
  EXPECT_STREQ(kQSBackupPlistKey_Scheduled, "scheduled");
  EXPECT_STREQ(kQSBackupPlistKey_ShortUsername, "short-name");
  EXPECT_STREQ(kQSBackupPlistKey_BackupUUID, "backup-uid");
  EXPECT_STREQ(kQSBackupPlistKey_ManagedCategories, "managed-categories");
  EXPECT_STREQ(kQSBackupPlistKey_VersionDepth, "version-depth");
  EXPECT_STREQ(kQSBackupPlistKey_ExclusionFilterDirectory, "exclusion-filter-directory");
  EXPECT_STREQ(kQSBackupPlistKey_ManagedCategories_Identifier, "identifier");
  EXPECT_STREQ(kQSBackupPlistKey_ManagedCategories_Scheduled, "scheduled");
  EXPECT_STREQ(kQSBackupPlistKey_ManagedCategories_UserPausePreference, "userPausePreference");
  EXPECT_STREQ(kQSBackupPlistKey_ManagedCategories_UserInfo, "user-info");
  EXPECT_STREQ(kQSBackupPlistKey_SourceFormat_NTFS, "ntfs");
  EXPECT_STREQ(kQSBackupPlistKey_SourceFormat_FAT32, "fat32");
  EXPECT_STREQ(kBackupDestinationDirectoryName, "qs skerrow.skstor");
  EXPECT_STREQ(kMetadataFileName, ".com.qsc.backupinfo");
  EXPECT_STREQ(kBackupDatabaseFile, "backupdb.plist");
  EXPECT_STREQ(kExtAttrKeyForBackupAttributesV1, "com.qsc.backup.attributes.v1");
  EXPECT_STREQ(kExtAttrKeyForGUID, "com.qsc.backup.uid");
  EXPECT_STREQ(QSBackupAttributes::sourceFormatHFSPlus(), "hfs+");
}

TEST(QSBackupAttributesTest, MissingKeysReadAsNothingZeroAndNo) {
  Dictionary empty;
  QSBackupAttributes a(empty);
  EXPECT_FALSE(a.uid());
  EXPECT_FALSE(a.machineName());
  EXPECT_FALSE(a.managedCategories());
  EXPECT_FALSE(a.completionDate());
  EXPECT_FALSE(a.exclusionFilterDirectory());
  EXPECT_EQ(a.period(), 0.0);
  EXPECT_EQ(a.versionDepth(), 0u);
  EXPECT_FALSE(a.isScheduled());
  EXPECT_FALSE(a.isPersistent());
  EXPECT_FALSE(a.isSourceFormatHFSPlus());
}

TEST(QSBackupAttributesTest, SettersAndGettersRoundTrip) {
  Dictionary d;
  QSMutableBackupAttributes m(d);
  m.setUID("U");
  m.setSourceFormatHFSPlus();
  m.setMachineName("M");
  m.setLongUserName("L");
  m.setShortUserName("S");
  m.setUserHome("/h");
  m.setManagedCategories({Value("x")});
  m.setScheduled(true);
  m.setPersistent(true);
  m.setMountPoint("/mnt");
  m.setBSDName("sdb1");
  m.setCompletionDate(platform::Date(12));
  m.setPeriod(1.5);
  m.setVersionDepth(9);
  m.setExclusionFilterDirectory("re");
  const QSBackupAttributes& a = m;
  EXPECT_EQ(a.uid(), "U");
  EXPECT_TRUE(a.isSourceFormatHFSPlus());
  EXPECT_EQ(a.machineName(), "M");
  EXPECT_EQ(a.longUserName(), "L");
  EXPECT_EQ(a.shortUserName(), "S");
  EXPECT_EQ(a.userHome(), "/h");
  EXPECT_EQ(a.managedCategories()->size(), 1u);
  EXPECT_TRUE(a.isScheduled());
  EXPECT_TRUE(a.isPersistent());
  EXPECT_EQ(a.mountPoint(), "/mnt");
  EXPECT_EQ(a.BSDName(), "sdb1");
  EXPECT_EQ(a.completionDate(), platform::Date(12));
  EXPECT_EQ(a.period(), 1.5);
  EXPECT_EQ(a.versionDepth(), 9u);
  EXPECT_EQ(a.exclusionFilterDirectory(), "re");
  EXPECT_TRUE(d.find("period")->isReal());
  EXPECT_TRUE(d.find("version-depth")->isInteger());
  EXPECT_TRUE(d.find("scheduled")->isBoolean());
}

TEST(QSBackupAttributesTest, SourceFormatOtherThanHFSPlus) {
  Dictionary d{{"source-format", Value("ntfs")}};
  EXPECT_FALSE(QSBackupAttributes(d).isSourceFormatHFSPlus());
  EXPECT_EQ(QSBackupAttributes(d).sourceFormat(), "ntfs");
}

TEST(QSBackupAttributesTest, NumbersStoredAsStringsStillRead) {
  Dictionary d{{"version-depth", Value("12")}, {"scheduled", Value("YES")}, {"period", Value("60.5")}};
  QSBackupAttributes a(d);
  EXPECT_EQ(a.versionDepth(), 12u);
  EXPECT_TRUE(a.isScheduled());
  EXPECT_EQ(a.period(), 60.5);
}
