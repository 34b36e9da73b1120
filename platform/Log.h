// The system log.
//
// Plain lines (`line`, `format`) go to the journal at the default priority
// (info), with no prefix.  Events (`event`) carry a priority and fields of
// their own, such as SKERROW_BACKUP_UID, so that `journalctl
// SKERROW_BACKUP_UID=...` shows one backup's story.  Entries are sent with
// sd_journal_send; where no journal listens they go to syslog instead.
// When standard error is a terminal or the environment sets
// SKERROW_LOG_STDERR, the text of every entry is written there too.
// Tests replace the sinks to capture lines and entries.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace platform {

// syslog(3) priorities.
enum class LogPriority { Error = 3, Warning = 4, Notice = 5, Info = 6 };

struct LogEntry {
  LogPriority priority = LogPriority::Info;
  std::string text;
  // Journal fields besides MESSAGE and PRIORITY: upper-case names, any text.
  std::vector<std::pair<std::string, std::string>> fields;
};

class Log {
 public:
  using Sink = std::function<void(const std::string& line)>;
  using EntrySink = std::function<void(const LogEntry& entry)>;

  // Writes one line (a trailing newline is not needed) at the default priority.  Thread-safe.
  static void line(const std::string& text);
  // printf-style convenience.
  static void format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
  // Writes one entry with its priority and fields.  Thread-safe.
  static void event(LogPriority priority, const std::string& text,
                    std::vector<std::pair<std::string, std::string>> fields = {});

  // Writes text to standard output as it is (no newline added), flushed at once.
  static void writeStandardOutput(const std::string& text);
  // Writes text to standard error as it is (no newline added).
  static void writeStandardError(const std::string& text);

  // Replaces the sink of lines (every entry's text reaches it); an empty
  // sink restores the system log.  Answers the previous sink.
  static Sink setSink(Sink sink);
  // Replaces the sink of whole entries (with priority and fields), which is
  // called besides the sink of lines.  Answers the previous one.
  static EntrySink setEntrySink(EntrySink sink);
};

// Captures log lines for the lifetime of the object (tests).
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  // Every entry with its priority and fields (plain lines at Info).
  std::vector<LogEntry> entries() const;
  // How many captured lines equal `text` exactly.
  size_t count(const std::string& text) const;
  // Whether any captured line contains `fragment`.
  bool contains(const std::string& fragment) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  Log::Sink previous_;
  Log::EntrySink previousEntrySink_;
};

}  // namespace platform
