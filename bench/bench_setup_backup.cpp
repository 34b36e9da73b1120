// skerrow_bench_setup_backup: prepares a managed backup for the backup
// benchmark: the backup folder with its metadata on a mounted disk, and a
// database naming the backup persistent and scheduled with every category.
//
//   skerrow_bench_setup_backup USER HOME MOUNT_POINT STORE_FOLDER UID
#include <cstdio>
#include <filesystem>
#include <string>

#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSBackupEntry.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/PropertyList.h"

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: %s USER HOME MOUNT_POINT STORE_FOLDER UID\n", argv[0]);
    return 2;
  }
  const std::string user = argv[1], home = argv[2], mountPoint = argv[3], store = argv[4], uid = argv[5];
  auto entry = QSBackupEntry::initWithUID(uid);
  entry->setShortUserName(user);
  entry->setLongUserName(user);
  entry->setUserHome(home);
  for (const char* category : kAllCategories) entry->categoryWithIdentifier(category)->setScheduled(true);
  entry->setVersionDepth(2);
  entry->setPeriod(3600);
  const std::string backup = mountPoint + "/" + kBackupDestinationDirectoryName + "/" + uid;
  std::filesystem::create_directories(backup);
  if (!platform::PropertyList::writeFile(backup + "/" + kMetadataFileName,
                                         platform::Value(entry->metadataForBackupDir()))) {
    std::fprintf(stderr, "cannot write the metadata in %s\n", backup.c_str());
    return 1;
  }
  entry->setPersistent(true);
  entry->setScheduled(true);
  std::filesystem::create_directories(store);
  if (!platform::PropertyList::writeFile(store + "/" + kBackupDatabaseFile,
                                         platform::Value(QSSkerrowServer::databaseContents({entry}, {})))) {
    std::fprintf(stderr, "cannot write the database in %s\n", store.c_str());
    return 1;
  }
  return 0;
}
