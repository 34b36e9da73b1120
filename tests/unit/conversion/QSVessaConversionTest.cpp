// The conversion driver: states, the state file, resumption, clean-up, and
// the promise never to lose a file.
#include "Engine/conversion/QSVessaConversion.h"

#include <gtest/gtest.h>

#include <set>

#include "Engine/conversion/QSVessaStateArchive.h"
#include "tests/unit/conversion/ConversionTestSupport.h"

namespace {

using namespace skerrow_test;

constexpr const char* kWillExamine = "QS Tidevault - WillPerformPathExamination";
constexpr const char* kDidExamine = "QS Tidevault - DidPerformPathExamination";
constexpr const char* kWillReassign = "QS Tidevault - WillPerformPathReassignment";
constexpr const char* kDidReassign = "QS Tidevault - DidPerformPathReassignment";
constexpr const char* kWillMove = "QS Tidevault - WillPerformPathMovement";
constexpr const char* kDidMove = "QS Tidevault - DidPerformPathMovement";
constexpr const char* kFinal = "qs skerrow.skstor";

class Conversion : public ::testing::Test {
 protected:
  void SetUp() override { useShippedBlackList(); }
  // A generated layout of two users; extra generator options may follow.
  void generate(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"--user", "ann=" + QSCHomeDirectoryForUser("ann"), "--user",
                                          "bob=" + QSCHomeDirectoryForUser("bob"), "--files", "25"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    ASSERT_EQ(runGenerator(dir, arguments), std::vector<std::string>{});
    manifest = LegacyManifest::read(dir / "manifest.tsv");
  }
  std::optional<QSVessaConvertedBackups> run(std::vector<std::string>* remaining = nullptr,
                                             QSVessaConversionEnvironment environment = testEnvironment()) {
    auto conversion = conversionOf(volume(), &delegate, std::move(environment));
    EXPECT_TRUE(conversion);
    if (!conversion) return std::nullopt;
    auto result = conversion->convertVessaHierarchy(remaining);
    state = conversion->converterState();
    return result;
  }
  std::string volume() const { return dir / "volume"; }
  std::string at(const std::string& name) const { return volume() + "/" + name; }
  std::set<std::string> manifestUIDs() const {
    std::set<std::string> uids;
    for (const auto& user : manifest.users)
      if (user.uid != "-") uids.insert(user.uid);
    return uids;
  }
  static std::set<std::string> keys(const QSVessaConvertedBackups& converted) {
    std::set<std::string> uids;
    for (const auto& [uid, backup] : converted) uids.insert(uid);
    return uids;
  }

  TempDir dir;
  LegacyManifest manifest;
  RecordingConversionDelegate delegate;
  std::string state;
};

TEST_F(Conversion, AnUntouchedLegacyFolderIsConvertedStateByState) {
  generate();
  const auto converted = run();
  ASSERT_TRUE(converted);
  EXPECT_EQ(converted->size(), 2u);
  EXPECT_EQ(delegate.states(), (std::vector<std::string>{kWillExamine, kDidExamine, kWillReassign, kDidReassign,
                                                         kWillMove, kDidMove, kFinal}));
  for (const auto& path : delegate.mountPaths()) EXPECT_EQ(path, volume());
  EXPECT_EQ(state, kFinal);
  const LegacyCheck check = checkLegacyVersions(volume(), manifest);
  EXPECT_TRUE(check.allConverted()) << check.summary();
  // The legacy folder went to the volume's trash, with nothing but property lists in it.
  EXPECT_FALSE(exists(at("QS Tidevault")));
  EXPECT_FALSE(exists(at(kDidMove)));
  EXPECT_TRUE(isFolder(at(".Trash-" + std::to_string(::geteuid()) + "/files/" + kDidMove)));
  EXPECT_TRUE(exists(at(".Trash-" + std::to_string(::geteuid()) + "/info/" + std::string(kDidMove) + ".trashinfo")));
  EXPECT_FALSE(exists(at("qs skerrow.skstor - IsPerformingPathMovement")));
}

TEST_F(Conversion, EveryNewBackupHasItsInformationList) {
  generate({"--exclusion", QSCHomeDirectoryForUser("ann") + "/Library/Caches"});
  const auto converted = run();
  ASSERT_TRUE(converted);
  for (const auto& [uid, backup] : *converted) {
    const auto info = platform::PropertyList::readFile(at(std::string(kFinal) + "/" + uid + "/.com.qsc.backupinfo"));
    ASSERT_TRUE(info && info->isDictionary()) << uid;
    const platform::Dictionary& list = *info->asDictionary();
    EXPECT_EQ(*list.find("backup-uid")->asString(), uid);
    EXPECT_EQ(*list.find("source-format")->asString(), "hfs+");
    const std::string user = *list.find("short-name")->asString();
    EXPECT_TRUE(user == "ann" || user == "bob");
    EXPECT_EQ(*list.find("home")->asString(), QSCHomeDirectoryForUser(user));
    EXPECT_EQ(*list.find("long-name")->asString(), QSCFullUserNameForUser(user));
    EXPECT_EQ(*list.find("machine")->asString(), kTestComputer);
    EXPECT_TRUE(list.find("completion-date")->isDate());
    EXPECT_EQ(list.find("period")->doubleValue(), 3600.0);
    EXPECT_TRUE(list.find("scheduled")->boolValue());
    EXPECT_EQ(list.find("version-depth")->int64Value(), 4);
    // The legacy exclusion, made relative to the home folder; bob's home does not hold it.
    if (user == "ann") {
      ASSERT_TRUE(list.find("exclusion-filter-directory"));
      EXPECT_EQ(*list.find("exclusion-filter-directory")->asString(), "/Library/Caches(.*)");
    } else {
      EXPECT_FALSE(list.find("exclusion-filter-directory"));
    }
    const platform::Array& managed = *list.find("managed-categories")->asArray();
    ASSERT_EQ(managed.size(), 6u);
    for (const platform::Value& category : managed) {
      EXPECT_TRUE(category.asDictionary()->find("scheduled")->boolValue());
      EXPECT_TRUE(category.asDictionary()->find("user-info")->isDictionary());
    }
  }
}

// Edge case: a volume whose root holds "QS Tidevault -
// DidPerformPathReassignment" with a readable state file resumes with the
// rename to state 6: no examination, no reassignment.
TEST_F(Conversion, DidPerformPathReassignmentWithAReadableStateFileResumesWithTheRenameToStateSix) {
  generate({"--state", "5"});
  const auto converted = run();
  ASSERT_TRUE(converted);
  EXPECT_EQ(delegate.states(), (std::vector<std::string>{kWillMove, kDidMove, kFinal}));
  // The identifiers are those the state file gave: nothing was examined or reassigned again.
  EXPECT_EQ(keys(*converted), manifestUIDs());
  const LegacyCheck check = checkLegacyVersions(volume(), manifest);
  EXPECT_TRUE(check.allConverted()) << check.summary();
}

// Edge case: a volume whose root holds "QS Tidevault -
// WillPerformPathExamination" with a state file: the file is deleted, the
// folder is renamed back to "QS Tidevault", and the conversion starts over.
TEST_F(Conversion, WillPerformPathExaminationWithAStateFileIsRenamedBackAndStartsOver) {
  generate({"--state", "2", "--state-file", "valid"});
  EXPECT_FALSE(run());
  EXPECT_TRUE(isFolder(at("QS Tidevault")));
  EXPECT_FALSE(exists(at(kWillExamine)));
  // The saved model is gone: the examination that followed, of the state-2
  // folder that is no longer there, saved a list without any computer.
  if (exists(at("QS Tidevault/.vessaToQSConversionStateInfo"))) {
    const auto saved = QSVessaStateArchive::unarchiveObjectWithData(
        LegacyWriter::read(at("QS Tidevault/.vessaToQSConversionStateInfo")));
    ASSERT_TRUE(saved);
    EXPECT_TRUE(saved->empty());
  }
  EXPECT_EQ(checkLegacyVersions(volume(), manifest).inLegacyTree, manifest.versions.size());
  // The next mount starts over from the untouched state and converts everything.
  const auto converted = run();
  ASSERT_TRUE(converted);
  EXPECT_EQ(converted->size(), 2u);
  const LegacyCheck check = checkLegacyVersions(volume(), manifest);
  EXPECT_TRUE(check.allConverted()) << check.summary();
}

TEST_F(Conversion, WillPerformPathExaminationWithoutAStateFileExaminesAgain) {
  generate({"--state", "2"});
  const auto converted = run();
  ASSERT_TRUE(converted);
  EXPECT_EQ(delegate.states().front(), kDidExamine);
  EXPECT_TRUE(checkLegacyVersions(volume(), manifest).allConverted());
}

// Edge case: a volume with "QS Tidevault - DidPerformPathExamination" whose
// state file cannot be unarchived: the folder goes back to "QS Tidevault";
// the driver still proceeds from the found state, its rename from the
// state-3 folder fails because that folder is gone, the run ends with no
// identifiers, and the next mount starts over from "QS Tidevault".
TEST_F(Conversion, DidPerformPathExaminationWithAnUnreadableStateFileEndsWithoutIdentifiersAndStartsOverNextTime) {
  generate({"--state", "3", "--state-file", "garbage"});
  EXPECT_FALSE(run());
  EXPECT_EQ(delegate.states(), std::vector<std::string>{kWillReassign});
  EXPECT_TRUE(isFolder(at("QS Tidevault")));
  EXPECT_FALSE(exists(at(kDidExamine)));
  EXPECT_FALSE(exists(at(kWillReassign)));
  EXPECT_FALSE(exists(at("QS Tidevault/.vessaToQSConversionStateInfo")));
  EXPECT_TRUE(checkLegacyVersions(volume(), manifest).nothingLost());
  const auto converted = run();
  ASSERT_TRUE(converted);
  EXPECT_EQ(converted->size(), 2u);
  EXPECT_TRUE(checkLegacyVersions(volume(), manifest).allConverted());
}

// Edge case: a legacy folder that holds no computer folders: examination
// fails, the folder stays named "QS Tidevault - WillPerformPathExamination",
// no identifiers are reported.
TEST_F(Conversion, ALegacyFolderWithoutComputerFoldersFailsExaminationAndStaysInStateTwo) {
  LegacyWriter::write(at("QS Tidevault/not a computer.txt"), "x");
  EXPECT_FALSE(run());
  EXPECT_EQ(delegate.states(), std::vector<std::string>{kWillExamine});
  EXPECT_TRUE(isFolder(at(kWillExamine)));
  EXPECT_TRUE(exists(at(std::string(kWillExamine) + "/not a computer.txt")));
  EXPECT_FALSE(exists(at(kFinal)));
}

// Edge case: `converterState` of a conversion in state 0 is the empty string.
TEST_F(Conversion, TheStateOfAVolumeWithoutLegacyBackupsIsTheEmptyString) {
  std::filesystem::create_directories(volume());
  auto conversion = conversionOf(volume(), &delegate);
  ASSERT_TRUE(conversion);
  EXPECT_EQ(conversion->converterState(), "");
  EXPECT_FALSE(conversion->convertVessaHierarchy(nullptr));
  EXPECT_EQ(conversion->converterState(), "");
  EXPECT_EQ(conversion->currentStateOfConversion(), 0);
  EXPECT_TRUE(delegate.states().empty());
  EXPECT_TRUE(std::filesystem::is_empty(volume()));
}

// Edge case: when one remaining user file cannot be moved, the legacy
// folder is not removed and clean-up answers true with that file listed.
TEST_F(Conversion, ARemainingUserFileKeepsTheLegacyFolderAndCleanUpListsIt) {
  generate({"--state", "7"});
  const std::string stray = at(std::string(kDidMove) + "/" + kTestComputer + "/ann/Documents/stray.txt");
  LegacyWriter::write(stray, "a file the conversion never knew");
  auto conversion = conversionOf(volume(), &delegate);
  ASSERT_TRUE(conversion);
  conversion->acquireCurrentStateOfConversion();
  std::vector<std::string> remaining;
  EXPECT_TRUE(conversion->performCleanup(&remaining));
  EXPECT_EQ(remaining, std::vector<std::string>{stray});
  EXPECT_TRUE(isFolder(at(kDidMove)));
  EXPECT_TRUE(exists(stray));
  EXPECT_FALSE(exists(at(kFinal)));
}

TEST_F(Conversion, AVersionWhoseNewNameIsTakenStaysInTheLegacyTreeAndKeepsTheFolder) {
  generate({"--state", "6", "--moved", "0"});
  // Something already stands where one version would go.
  const LegacyVersion* victim = nullptr;
  for (const auto& v : manifest.versions)
    if (v.user == "ann" && v.newIndex == "0") victim = &v;
  ASSERT_TRUE(victim);
  std::string uid;
  for (const auto& user : manifest.users)
    if (user.name == "ann") uid = user.uid;
  const std::string taken = at("qs skerrow.skstor - IsPerformingPathMovement/" + uid + "/" +
                               (victim->folder.empty() ? "" : victim->folder + "/") + versionedName(victim->name, "0"));
  LegacyWriter::write(taken, "someone else's file");
  std::vector<std::string> remaining;
  const auto converted = run(&remaining);
  ASSERT_TRUE(converted);
  EXPECT_EQ(remaining, std::vector<std::string>{at(std::string(kDidMove) + "/" + victim->legacyPath)});
  // Nothing was overwritten and nothing lost: the version is still in the legacy folder, which stays.
  EXPECT_EQ(LegacyWriter::read(taken), "someone else's file");
  const LegacyCheck check = checkLegacyVersions(volume(), manifest);
  EXPECT_TRUE(check.nothingLost()) << check.summary();
  EXPECT_EQ(check.inLegacyTree, 1u) << check.summary();
  EXPECT_TRUE(isFolder(at(kDidMove)));
}

TEST_F(Conversion, AMovementCutShortResumesWithoutMovingAnythingTwice) {
  generate({"--state", "6", "--moved", "0.5"});
  const LegacyCheck before = checkLegacyVersions(volume(), manifest);
  ASSERT_GT(before.inProgress, 0u);
  ASSERT_GT(before.inLegacyTree, 0u);
  const auto converted = run();
  ASSERT_TRUE(converted);
  EXPECT_EQ(keys(*converted), manifestUIDs());
  EXPECT_TRUE(checkLegacyVersions(volume(), manifest).allConverted());
}

TEST_F(Conversion, StateSevenResumesWithCleanUpOnly) {
  generate({"--state", "7"});
  const auto converted = run();
  ASSERT_TRUE(converted);
  EXPECT_EQ(delegate.states(), std::vector<std::string>{kFinal});
  EXPECT_EQ(keys(*converted), manifestUIDs());
  EXPECT_TRUE(checkLegacyVersions(volume(), manifest).allConverted());
}

TEST_F(Conversion, StatesThreeAndFourResumeWithReassignment) {
  for (const std::string state : {"3", "4"}) {
    TempDir other;
    std::vector<std::string> arguments = {"--user", "ann=" + QSCHomeDirectoryForUser("ann"), "--files", "10",
                                          "--state", state};
    ASSERT_EQ(runGenerator(other, arguments), std::vector<std::string>{});
    RecordingConversionDelegate recorder;
    auto conversion = conversionOf(other / "volume", &recorder);
    const auto converted = conversion->convertVessaHierarchy(nullptr);
    ASSERT_TRUE(converted) << state;
    EXPECT_EQ(recorder.states().front(), state == "3" ? kWillReassign : kDidReassign);
    EXPECT_TRUE(checkLegacyVersions(other / "volume", LegacyManifest::read(other / "manifest.tsv")).allConverted());
  }
}

TEST_F(Conversion, BackupsJoinAnExistingStorageFolderAndTheTargetGoesToTheTrash) {
  generate();
  platform::Dictionary existing;
  existing.set("backup-uid", platform::Value("5E4B0C1A-0000-4000-8000-00000000A11E"));
  existing.set("short-name", platform::Value("carol"));
  std::filesystem::create_directories(at("qs skerrow.skstor/5E4B0C1A-0000-4000-8000-00000000A11E"));
  platform::PropertyList::writeFile(at("qs skerrow.skstor/5E4B0C1A-0000-4000-8000-00000000A11E/.com.qsc.backupinfo"),
                                    platform::Value(existing));
  const auto converted = run();
  ASSERT_TRUE(converted);
  EXPECT_EQ(converted->size(), 2u);
  EXPECT_TRUE(exists(at("qs skerrow.skstor/5E4B0C1A-0000-4000-8000-00000000A11E/.com.qsc.backupinfo")));
  EXPECT_FALSE(exists(at("qs skerrow.skstor - IsPerformingPathMovement")));
  EXPECT_TRUE(checkLegacyVersions(volume(), manifest).allConverted());
}

TEST_F(Conversion, AVolumeThatCannotBeWrittenIsLeftUntouchedAndClientsAreToldWhy) {
  generate();
  QSVessaConversionEnvironment environment = testEnvironment();
  environment.isWritable = [](const platform::VolumeTree&, std::string* why) {
    *why = "the volume is mounted read-only";
    return false;
  };
  EXPECT_FALSE(run(nullptr, environment));
  EXPECT_EQ(delegate.states(),
            std::vector<std::string>{"QS Tidevault - NotConverted: the volume is mounted read-only"});
  EXPECT_EQ(state, "QS Tidevault - NotConverted: the volume is mounted read-only");
  EXPECT_TRUE(isFolder(at("QS Tidevault")));
  EXPECT_FALSE(exists(at("QS Tidevault/.vessaToQSConversionStateInfo")));
  EXPECT_EQ(checkLegacyVersions(volume(), manifest).inLegacyTree, manifest.versions.size());
}

TEST_F(Conversion, AVolumeWithoutRoomForTheInformationListsIsLeftUntouched) {
  generate();
  QSVessaConversionEnvironment environment = testEnvironment();
  environment.freeBytes = [](const platform::VolumeTree&) { return std::optional<uint64_t>(4096); };
  EXPECT_FALSE(run(nullptr, environment));
  ASSERT_EQ(delegate.states().size(), 1u);
  EXPECT_EQ(delegate.states()[0].rfind("QS Tidevault - NotConverted: the volume has 4096 bytes free", 0), 0u)
      << delegate.states()[0];
  EXPECT_TRUE(isFolder(at("QS Tidevault")));
  EXPECT_FALSE(exists(at(kWillExamine)));
}

TEST_F(Conversion, AResumedVolumeIsCheckedBeforeItsFirstRenameToo) {
  generate({"--state", "2", "--state-file", "valid"});
  QSVessaConversionEnvironment environment = testEnvironment();
  environment.isWritable = [](const platform::VolumeTree&, std::string* why) {
    *why = "no";
    return false;
  };
  EXPECT_FALSE(run(nullptr, environment));
  // Not even renamed back: the disk is left exactly as it was.
  EXPECT_TRUE(isFolder(at(kWillExamine)));
  EXPECT_TRUE(exists(at(std::string(kWillExamine) + "/.vessaToQSConversionStateInfo")));
}

TEST_F(Conversion, ConvertedBackupsAreRecordedUntilTheEngineAdoptsThem) {
  generate();
  const auto converted = run();
  ASSERT_TRUE(converted);
  const std::string record = at("qs skerrow.skstor/.vessaToQSConversionNewBackups");
  ASSERT_TRUE(exists(record));
  // A run that finds the volume converted (after a crash before adoption) reports them again.
  RecordingConversionDelegate again;
  auto second = conversionOf(volume(), &again);
  const auto reported = second->convertVessaHierarchy(nullptr);
  ASSERT_TRUE(reported);
  EXPECT_EQ(keys(*reported), keys(*converted));
  second.reset();  // its hold on the volume ends with it
  // Once adopted they are no longer recorded, and a later run reports nothing.
  std::vector<std::string> adopted;
  for (const auto& [uid, backup] : *converted) adopted.push_back(uid);
  QSVessaConversion::forgetAdoptedBackups(volume(), {adopted[0]});
  EXPECT_TRUE(exists(record));
  QSVessaConversion::forgetAdoptedBackups(volume(), adopted);
  EXPECT_FALSE(exists(record));
  auto third = conversionOf(volume(), &again);
  const auto nothing = third->convertVessaHierarchy(nullptr);
  ASSERT_TRUE(nothing);
  EXPECT_TRUE(nothing->empty());
}

TEST_F(Conversion, AFailedStateSaveStopsBeforeTheRename) {
  generate();
  QSVessaConversionEnvironment environment = testEnvironment();
  // The state folder cannot take the state file.
  LegacyWriter::write(at("QS Tidevault/.vessaToQSConversionStateInfo/blocker"), "x");
  EXPECT_FALSE(run(nullptr, environment));
  EXPECT_TRUE(isFolder(at(kWillExamine)));
  EXPECT_FALSE(exists(at(kDidExamine)));
}

TEST_F(Conversion, PathsOfTheStatesAndTheirSubPaths) {
  std::filesystem::create_directories(volume());
  auto conversion = conversionOf(volume(), &delegate);
  EXPECT_EQ(conversion->vessaRootBackupFolder(), volume() + "/QS Tidevault");
  EXPECT_EQ(conversion->vessaRootBackupFolderWillPerformPathMovement(), volume() + "/" + kWillMove);
  EXPECT_EQ(conversion->qsRootBackupFolder(), volume() + "/qs skerrow.skstor");
  EXPECT_EQ(conversion->qsRootBackupFolderIsPerformingPathMovement(),
            volume() + "/qs skerrow.skstor - IsPerformingPathMovement");
  EXPECT_EQ(conversion->vessaRootBackupFolderPathWithSubPath_forConversionState("a/b", 3),
            volume() + "/" + kDidExamine + "/a/b");
  EXPECT_EQ(conversion->vessaRootBackupFolderPathWithSubPath_forConversionState("", 8), volume() + "/qs skerrow.skstor");
  EXPECT_EQ(conversion->vessaRootBackupFolderPathWithSubPath_forConversionState("a", 0), std::nullopt);
  EXPECT_EQ(conversion->vessaRootBackupFolderPathWithSubPath_forConversionState("a", 9), std::nullopt);
  EXPECT_EQ(conversion->currentVessaRootBackupFolderPathWithSubPath(""), std::nullopt);
  conversion->setCurrentStateOfConversion(6);
  EXPECT_EQ(conversion->converterState(), kWillMove);
  EXPECT_EQ(conversion->currentVessaRootBackupFolderPathWithSubPath("x"), volume() + "/" + kWillMove + "/x");
}

TEST_F(Conversion, AStateFileWithPathsLeadingOutOfTheFolderIsUnreadableAndStartsOver) {
  generate({"--state", "5"});
  const std::string stateFile = at(std::string(kDidReassign) + "/.vessaToQSConversionStateInfo");
  auto archive = platform::PropertyList::readFile(stateFile);
  ASSERT_TRUE(archive);
  std::string bytes = *platform::PropertyList::toBytes(*archive, platform::PropertyList::Format::XML);
  const auto at = bytes.find("<key>relativePathToFile</key>");
  ASSERT_NE(at, std::string::npos);
  const auto open = bytes.find("<string>", at) + 8;
  bytes.replace(open, bytes.find("</string>", open) - open, "../../../etc");
  LegacyWriter::write(stateFile, bytes);
  EXPECT_FALSE(run());
  EXPECT_TRUE(isFolder(this->at("QS Tidevault")));
  EXPECT_TRUE(checkLegacyVersions(volume(), manifest).nothingLost());
}

TEST_F(Conversion, FilesWithoutPropertyListMoveUnderTheirLegacyNames) {
  generate({"--no-plist-every", "4"});
  const auto converted = run();
  ASSERT_TRUE(converted);
  const LegacyCheck check = checkLegacyVersions(volume(), manifest);
  EXPECT_TRUE(check.nothingLost()) << check.summary();
  size_t keepNames = 0;
  for (const auto& v : manifest.versions) keepNames += v.newIndex == "=";
  ASSERT_GT(keepNames, 0u);
  EXPECT_EQ(check.converted, check.versions) << check.summary();
}

}  // namespace
