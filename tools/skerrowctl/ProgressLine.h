// The one line skerrowctl redraws while it follows a backup: what phase the
// backup is in, how far it has come against what is expected, how fast and
// how long, fitted to the terminal's width (never wider, so that redrawing
// it over itself never wraps and garbles the screen).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace skerrowctl {

// Totals of one view of a tally: files and bytes over every category.
struct TallyTotals {
  int64_t files = 0;
  int64_t bytes = 0;
  bool operator==(const TallyTotals&) const = default;
};

enum class Phase { Source, Destination, Copy };
// "source", "destination", "copy": the names JSON events use.
const char* phaseName(Phase phase);

struct ProgressSample {
  Phase phase = Phase::Source;
  std::string who;            // the backup, when several are followed ("5E4B0C1A"); else empty
  TallyTotals source;         // what the home folder holds (counted so far)
  TallyTotals destination;    // what the backup holds
  TallyTotals transferred;    // what was copied
  TallyTotals expected;       // what is to be copied
  double elapsed = 0;         // seconds since the phase began
  double bytesPerSecond = 0;  // copy rate, 0 when not known yet
  std::optional<double> secondsLeft;
  bool finished = false;      // the phase's final line
};

// Percent of the expected bytes copied (of the files when no bytes are
// expected); 100 when nothing is expected.
int percentDone(const ProgressSample& sample);
// The line, at most `width` - 1 columns wide (the last column stays free
// so the terminal never wraps).  Less important parts are left out when it
// would not fit: the elapsed time, then the rate, then the byte counts; the
// bar narrows to 10 cells first.
std::string progressText(const ProgressSample& sample, size_t width);

}  // namespace skerrowctl
