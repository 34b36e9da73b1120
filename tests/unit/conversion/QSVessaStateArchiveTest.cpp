// The state file: the examined model, written and read back whole.
#include "Engine/conversion/QSVessaStateArchive.h"

#include <gtest/gtest.h>

#include "tests/unit/conversion/ConversionTestSupport.h"

namespace {

using namespace skerrow_test;

TEST(VessaStateArchive, TheExaminedModelReadsBackAsItWasWritten) {
  useShippedBlackList();
  TempDir dir;
  ASSERT_EQ(runGenerator(dir, {"--user", "ann=" + QSCHomeDirectoryForUser("ann"), "--files", "15", "--other-computer",
                               "Old Laptop"}),
            std::vector<std::string>{});
  auto conversion = conversionOf(dir / "volume", nullptr);
  conversion->setCurrentStateOfConversion(1);
  ASSERT_EQ(::rename((dir / "volume/QS Tidevault").c_str(),
                     (dir / "volume/QS Tidevault - WillPerformPathExamination").c_str()),
            0);
  conversion->setCurrentStateOfConversion(2);
  ASSERT_TRUE(conversion->performPathExamination());
  ASSERT_TRUE(conversion->performPathReassignment());
  const auto bytes = QSVessaStateArchive::archivedDataWithRootObject(conversion->backedUpComputers());
  ASSERT_TRUE(bytes);
  const auto back = QSVessaStateArchive::unarchiveObjectWithData(*bytes);
  ASSERT_TRUE(back);
  ASSERT_EQ(back->size(), 2u);
  const auto again = QSVessaStateArchive::archivedDataWithRootObject(*back);
  EXPECT_EQ(platform::PropertyList::fromBytes(*again), platform::PropertyList::fromBytes(*bytes));
  // The file on disk is the same archive.
  const std::string saved = LegacyWriter::read(dir / "volume/QS Tidevault - WillPerformPathExamination/.vessaToQSConversionStateInfo");
  EXPECT_EQ(platform::PropertyList::fromBytes(saved), platform::PropertyList::fromBytes(*bytes));
}

TEST(VessaStateArchive, TheGeneratorsStateFileReadsAsTheEngineWritesIt) {
  TempDir dir;
  ASSERT_EQ(runGenerator(dir, {"--user", "ann=/home/ann", "--files", "10", "--state", "5"}),
            std::vector<std::string>{});
  const std::string bytes =
      LegacyWriter::read(dir / "volume/QS Tidevault - DidPerformPathReassignment/.vessaToQSConversionStateInfo");
  const auto computers = QSVessaStateArchive::unarchiveObjectWithData(bytes);
  ASSERT_TRUE(computers);
  ASSERT_EQ(computers->size(), 1u);
  ASSERT_EQ((*computers)[0]->backedUpUsers().size(), 1u);
  EXPECT_TRUE((*computers)[0]->backedUpUsers()[0]->uuidIfAssigned());
}

TEST(VessaStateArchive, AnythingElseReadsAsNothing) {
  EXPECT_FALSE(QSVessaStateArchive::unarchiveObjectWithData(""));
  EXPECT_FALSE(QSVessaStateArchive::unarchiveObjectWithData("bplist00 garbage"));
  platform::Dictionary wrong;
  wrong.set("$archiver", platform::Value("NSKeyedArchiver"));
  wrong.set("$version", platform::Value::integer(1));
  wrong.set("root", platform::Value(platform::Array()));
  EXPECT_FALSE(QSVessaStateArchive::unarchiveObjectWithData(
      *platform::PropertyList::toBytes(platform::Value(wrong), platform::PropertyList::Format::Binary)));
  platform::Dictionary notAComputer;
  notAComputer.set("$archiver", platform::Value("QSVessaConversion"));
  notAComputer.set("$version", platform::Value::integer(1));
  notAComputer.set("root", platform::Value(platform::Array{platform::Value("computer")}));
  EXPECT_FALSE(QSVessaStateArchive::unarchiveObjectWithData(
      *platform::PropertyList::toBytes(platform::Value(notAComputer), platform::PropertyList::Format::Binary)));
  platform::Dictionary empty = notAComputer;
  empty.set("root", platform::Value(platform::Array()));
  const auto none = QSVessaStateArchive::unarchiveObjectWithData(
      *platform::PropertyList::toBytes(platform::Value(empty), platform::PropertyList::Format::Binary));
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->empty());
}

}  // namespace
