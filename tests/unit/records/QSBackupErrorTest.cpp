#include "Engine/records/QSBackupError.h"

#include <gtest/gtest.h>

#include "Engine/records/QSMemoryCoder.h"

TEST(QSBackupErrorTest, StartsWithoutSizeOrDateAndTakesThemLater) {
  auto error = QSBackupError::initWithUID_sourcePath_destinationPath_message_code(
      std::nullopt, "/home/ann/Documents/report.txt", "/disk/U/Documents/report@0.txt", "Unable to copy", -1);
  EXPECT_EQ(error->sourceBytes(), 0);
  EXPECT_EQ(error->sourceModificationDate(), std::nullopt);
  EXPECT_EQ(error->uid(), std::nullopt);
  error->setSourceBytes(1234);
  error->setSourceModificationDate(platform::Date(86400.5));
  error->setUID("U");
  EXPECT_EQ(error->sourceBytes(), 1234);
  EXPECT_EQ(error->size(), 1234);
  EXPECT_EQ(error->sourceModificationDate(), platform::Date(86400.5));
  EXPECT_EQ(error->uid(), "U");
  EXPECT_EQ(error->code(), -1);
}

TEST(QSBackupErrorTest, NameIsTheLastComponentOfTheSourcePath) {
  EXPECT_EQ(QSBackupError::initWithUID_sourcePath_destinationPath_message_code("U", "/home/ann/Documents/report.txt",
                                                                               "/d", "m", -1)
                ->name(),
            "report.txt");
  EXPECT_EQ(QSBackupError::initWithUID_sourcePath_destinationPath_message_code("U", "/home/ann/Music/", "/d", "m", 0)
                ->name(),
            "Music");
  EXPECT_EQ(QSBackupError::initWithUID_sourcePath_destinationPath_message_code("U", std::nullopt, "/d", "m", 0)->name(),
            "");
}

TEST(QSBackupErrorTest, DescriptionListsEveryFieldInItsFixedOrder) {
  auto error = QSBackupError::initWithUID_sourcePath_destinationPath_message_code(
      "U", "/home/ann/a.txt", "/disk/U/a@0.txt", "Unable to copy: No space left on device", -1429);
  error->setSourceBytes(4096);
  error->setSourceModificationDate(platform::Date(3600));
  EXPECT_EQ(error->description(),
            "QSBackupError: {\n"
            "uid:           U\n"
            "code:          -1429\n"
            "message:       Unable to copy: No space left on device\n"
            "source path:   /home/ann/a.txt\n"
            "dest path:     /disk/U/a@0.txt\n"
            "file size:     4096\n"
            "mod date:      2001-01-01 01:00:00 +0000}\n");

  auto folder = QSBackupError::initWithUID_sourcePath_destinationPath_message_code(
      std::nullopt, std::nullopt, "/disk/U/Documents", "Unable to create directory at %@", 0);
  EXPECT_EQ(folder->description(),
            "QSBackupError: {\n"
            "uid:           (null)\n"
            "code:          0\n"
            "message:       Unable to create directory at %@\n"
            "source path:   (null)\n"
            "dest path:     /disk/U/Documents\n"
            "file size:     0\n"
            "mod date:      (null)}\n");
}

TEST(QSBackupErrorTest, PortCodingWritesCodeSizeUidMessageDestinationSourceAndDateInThatOrder) {
  auto error = QSBackupError::initWithUID_sourcePath_destinationPath_message_code("U", "/s/a.txt", "/d/a@0.txt",
                                                                                  "Unable to copy", -1);
  error->setSourceBytes(77);
  error->setSourceModificationDate(platform::Date(12.5));
  QSMemoryCoder coder;
  error->encodeWithCoder(coder.encoder());
  QSDecoder& in = coder.decoder();
  EXPECT_EQ(in.decodeInt64(), -1);
  EXPECT_EQ(in.decodeInt64(), 77);
  EXPECT_EQ(in.decodeOptionalString(), "U");
  EXPECT_EQ(in.decodeString(), "Unable to copy");
  EXPECT_EQ(in.decodeString(), "/d/a@0.txt");
  EXPECT_EQ(in.decodeOptionalString(), "/s/a.txt");
  ASSERT_EQ(in.beginArray(), 1u);
  EXPECT_EQ(in.decodeDate(), platform::Date(12.5));
  in.endArray();
  EXPECT_EQ(coder.remaining(), 0u);

  coder.rewind();
  const auto copy = QSBackupError::initWithCoder(coder.decoder());
  EXPECT_EQ(*copy, *error);
}
