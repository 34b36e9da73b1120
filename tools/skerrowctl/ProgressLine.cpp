#include "tools/skerrowctl/ProgressLine.h"

#include <algorithm>
#include <vector>

#include <fmt/format.h>

#include "tools/skerrowctl/Wording.h"

namespace skerrowctl {

namespace {

std::string bar(int percent, size_t cells) {
  const size_t filled = std::min(cells, static_cast<size_t>(percent) * cells / 100);
  return "[" + std::string(filled, '#') + std::string(cells - filled, '-') + "]";
}

// Joins the parts that are kept, two spaces apart.
std::string joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const auto& part : parts) {
    if (part.empty()) continue;
    text += (text.empty() ? "" : "  ") + part;
  }
  return text;
}

}  // namespace

const char* phaseName(Phase phase) {
  switch (phase) {
    case Phase::Source: return "source";
    case Phase::Destination: return "destination";
    case Phase::Copy: return "copy";
  }
  return "copy";
}

int percentDone(const ProgressSample& s) {
  const int64_t done = s.expected.bytes > 0 ? s.transferred.bytes : s.transferred.files;
  const int64_t total = s.expected.bytes > 0 ? s.expected.bytes : s.expected.files;
  if (total <= 0) return 100;
  return static_cast<int>(std::clamp<int64_t>(done * 100 / total, 0, 100));
}

std::string progressText(const ProgressSample& s, size_t width) {
  const size_t room = width > 1 ? width - 1 : 0;
  const std::string who = s.who.empty() ? "" : s.who + " ";
  std::vector<std::string> parts;
  // Index of each optional part, dropped in this order when the line is too long.
  std::vector<size_t> droppable;
  switch (s.phase) {
    case Phase::Source:
      parts = {who + (s.finished ? "Counted your home folder" : "Counting your home folder"),
               countOf(s.source.files, "file", "files"), humanBytes(s.source.bytes), clockDuration(s.elapsed)};
      droppable = {3, 2};
      break;
    case Phase::Destination:
      parts = {who + (s.finished ? "Compared with the backup" : "Comparing with the backup"),
               grouped(s.destination.files) + " stored",
               countOf(s.expected.files, "file", "files") + " to copy (" + humanBytes(s.expected.bytes) + ")",
               clockDuration(s.elapsed)};
      droppable = {3, 1};
      break;
    case Phase::Copy: {
      const int percent = percentDone(s);
      parts = {who + (s.finished ? "Copied " : "Copying"), bar(percent, 20) + fmt::format(" {:3}%", percent),
               grouped(s.transferred.files) + "/" + countOf(s.expected.files, "file", "files"),
               humanBytes(s.transferred.bytes) + "/" + humanBytes(s.expected.bytes),
               s.bytesPerSecond > 0 ? humanRate(s.bytesPerSecond) : "",
               clockDuration(s.elapsed),
               s.finished || !s.secondsLeft ? "" : clockDuration(*s.secondsLeft) + " left"};
      droppable = {5, 4, 3};
      if (joined(parts).size() > room) parts[1] = bar(percent, 10) + fmt::format(" {:3}%", percent);
      break;
    }
  }
  for (size_t index : droppable) {
    if (joined(parts).size() <= room) break;
    parts[index].clear();
  }
  std::string text = joined(parts);
  if (text.size() > room) text.resize(room);
  return text;
}

}  // namespace skerrowctl
