// The conversion of a volume's legacy backups, in place and resumably.
//
// The state of the conversion is the name of the legacy top folder at the
// volume root (see QSVessaConversionStrings.h): 1 "QS Tidevault", 2 "... -
// WillPerformPathExamination", 3 "... - DidPerformPathExamination", 4 "... -
// WillPerformPathReassignment", 5 "... - DidPerformPathReassignment", 6 "...
// - WillPerformPathMovement", 7 "... - DidPerformPathMovement", 8 "qs
// skerrow.skstor" (converted); 0 means nothing to convert.  Each step is
// announced by renaming the folder before it starts and after it ends, and
// the examined model is saved in the state folder (the state file) at the
// end of examination and of reassignment, so a run stopped at any moment
// (a pulled disk, a killed process) resumes on the next mount from the
// folder's name: states 1 and 2 start over, states 3 to 7 resume after the
// step the name says was done, using the saved model.
//
// Driver (convertVessaHierarchy): detect the state; before anything is
// renamed, check that the volume can be written and has the room the new
// information lists need (otherwise the disk is left untouched and clients
// are told "QS Tidevault - NotConverted: <why>"); restore the saved model;
// then examination (one VessaComputerBackup per computer folder), renames,
// reassignment (new uids and version names), movement into "qs
// skerrow.skstor - IsPerformingPathMovement", the check that only legacy
// property lists remain, and clean-up (the target becomes or joins "qs
// skerrow.skstor", the legacy folder goes to the trash).  The answer is the
// new backups by uid, or nothing when the run failed; the top folder then
// keeps the name it reached and the next run resumes there.
//
// Detection answers the state found while the stored current state is the
// restored one: when a state-1 or state-2 folder holds a state file, or a
// later one an unreadable state file, the folder is renamed back to "QS
// Tidevault" and the run goes on from the state found (and fails at its
// next rename); the next run starts over.  This asymmetry is deliberate.
//
// Never losing a file: files are renamed, never copied or deleted; a
// version whose new name is taken stays in the legacy tree; the only files
// a conversion removes are legacy property lists, plan settings and its
// state file, and folders left empty (when the trash cannot take them).  A
// legacy folder goes to the trash only when a walk finds nothing else in it.
// Converted backups not yet adopted by the engine are recorded in "qs
// skerrow.skstor/.vessaToQSConversionNewBackups" until the engine reports
// them adopted, so a run that ended with a crash still reports them.
//
// One conversion of a volume at a time: a conversion holds an advisory lock
// on the volume's root folder and waits while another holds it (a disk
// pulled and plugged in again before the older conversion noticed, or a
// volume announced twice).
//
// Threads: a conversion runs on one thread (its converter's).  The current
// state is guarded by the object's lock, so converterState may be read from
// any thread.  The work stops at its next check when the thread is
// cancelled or the volume is no longer the mount it was opened on.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Engine/conversion/QSBackupConverterProtocol.h"
#include "Engine/conversion/QSVessaConversionEnvironment.h"
#include "Engine/conversion/VessaComputerBackup.h"
#include "platform/DateFormatter.h"
#include "platform/VolumeTree.h"

class QSVessaConversion {
 public:
  // Counts of one run, for the log and the benchmark.
  struct Statistics {
    uint64_t versionsMoved = 0;
    uint64_t versionsAlreadyMoved = 0;
    uint64_t versionsKeptInLegacyTree = 0;
  };

  // A conversion of the volume mounted at `path`; nothing when the path
  // cannot be opened as a folder or the formatter cannot be made.
  static std::unique_ptr<QSVessaConversion> initWithPath_delegate(
      const std::string& path, QSBackupConverterDelegate* delegate,
      QSVessaConversionEnvironment environment = QSVessaConversionEnvironment::system());

  // Runs or resumes the conversion (see above).  `remainingFiles`, when
  // given, is cleared and then receives the full path of every file that
  // keeps the legacy folder in place.
  std::optional<QSVessaConvertedBackups> convertVessaHierarchy(std::vector<std::string>* remainingFiles);

  // "" in state 0, the state's folder name in states 1 to 8, or the
  // refusal when the volume cannot be converted now.
  std::string converterState() const;
  int32_t currentStateOfConversion() const;
  void setCurrentStateOfConversion(int32_t state);

  // Full paths of the state folders (the mount path joined with the names).
  std::string vessaRootBackupFolder() const;
  std::string vessaRootBackupFolderWillPerformPathExamination() const;
  std::string vessaRootBackupFolderDidPerformPathExamination() const;
  std::string vessaRootBackupFolderWillPerformPathReassignment() const;
  std::string vessaRootBackupFolderDidPerformPathReassignment() const;
  std::string vessaRootBackupFolderWillPerformPathMovement() const;
  std::string vessaRootBackupFolderDidPerformPathMovement() const;
  std::string qsRootBackupFolder() const;
  std::string qsRootBackupFolderIsPerformingPathMovement() const;
  // The state's folder joined with `subPath` ("" for the folder itself); nothing outside 1 to 8.
  std::optional<std::string> vessaRootBackupFolderPathWithSubPath_forConversionState(const std::string& subPath,
                                                                                     int32_t state) const;
  std::optional<std::string> currentVessaRootBackupFolderPathWithSubPath(const std::string& subPath) const;

  // The converted backups of the examined computers (and those recorded as not yet adopted).
  QSVessaConvertedBackups backupsConverted() const;

  // The steps, one by one (the driver calls them; tests too).
  int32_t acquireCurrentStateOfConversion();
  int32_t restoreCurrentConversionState(int32_t state);
  bool saveCurrentConversionState();
  bool convertToWillPerformPathExamination();
  bool convertToDidPerformPathExamination();
  bool convertToWillPerformPathReassignment();
  bool convertToDidPerformPathReassignment();
  bool convertToWillPerformPathMovement();
  bool convertToDidPerformPathMovement();
  bool performPathExamination();
  bool performPathReassignment();
  bool performPathMovement();
  bool constructTargetFolderHierarchy();
  bool moveFilesToTargetFolderHierarchy();
  bool onlyVessaPListAndDSStoreFilesRemain(std::vector<std::string>* remainingFiles);
  bool performCleanup(std::vector<std::string>* remainingFiles);

  // The folder name of a state (1 to 8), "" otherwise.
  static std::string folderNameForState(int32_t state);

  // What the model works with.
  const platform::DateFormatter& vessaTimeStampFormatter() const { return *formatter_; }
  platform::VolumeTree& volume() { return *volume_; }
  const QSVessaConversionEnvironment& environment() const { return environment_; }
  const std::string& pathToVessaHierarchy() const { return pathToVessaHierarchy_; }
  // The current state's folder name (relative to the volume root).
  std::string currentStateFolder() const { return folderNameForState(currentStateOfConversion()); }
  // Whether work must stop now: the thread was cancelled or the volume is
  // no longer the mount it was opened on.  Logs the reason once.
  bool shouldStop();
  // The same, asking the mount now: before anything is written.
  bool shouldStopBeforeWriting();
  // A version that stays in the legacy tree because its new name is taken.
  void noteKeptInLegacyTree(const std::string& relativePath, const std::string& why);
  Statistics& statistics() { return statistics_; }
  const std::vector<std::shared_ptr<VessaComputerBackup>>& backedUpComputers() const { return backedUpComputers_; }
  // Moves a legacy folder (relative to the volume root) to the trash when a
  // walk finds nothing in it but what a conversion may remove; otherwise
  // leaves it and answers false.
  bool trashLegacyFolder(const std::string& relative);
  // Takes adopted backups off the record of those not yet adopted on the
  // volume mounted at `mountPath`.
  static void forgetAdoptedBackups(const std::string& mountPath, const std::vector<std::string>& uids);

  QSVessaConversion(std::string path, QSBackupConverterDelegate* delegate, QSVessaConversionEnvironment environment,
                    std::unique_ptr<platform::DateFormatter> formatter, std::unique_ptr<platform::VolumeTree> volume);
  QSVessaConversion(const QSVessaConversion&) = delete;
  QSVessaConversion& operator=(const QSVessaConversion&) = delete;

 private:
  int32_t detectStateOfConversion() const;
  bool volumeAllowsConversion(int32_t foundState, std::string* why);
  bool transition(int32_t from, int32_t to);
  void tellDelegate(const std::string& state);
  bool legacyFolderHoldsOnlyLeftovers(const std::string& relative, std::vector<std::string>* remainingFiles);
  bool recordNewBackups(const std::string& storageFolder);
  std::vector<std::string> newBackupsRecorded() const;
  bool trash(const std::string& relative);

  mutable std::mutex lock_;
  int32_t private_currentStateOfConversion = 0;
  std::string refusal_;
  std::string pathToVessaHierarchy_;
  std::vector<std::shared_ptr<VessaComputerBackup>> backedUpComputers_;
  QSBackupConverterDelegate* delegate_ = nullptr;
  std::unique_ptr<platform::DateFormatter> formatter_;
  QSVessaConversionEnvironment environment_;
  std::unique_ptr<platform::VolumeTree> volume_;
  Statistics statistics_;
  bool stopLogged_ = false;
  bool volumeGone_ = false;
  std::chrono::steady_clock::time_point lastMountCheck_{};
};
