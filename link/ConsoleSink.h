// Where the console lines of the link and the workers go. The command-line
// tool prints them on standard output, byte for byte; a program that drives
// the device through the library gets them through its own sink. Notes are
// ours, beyond the prescribed lines: the tool puts them on standard error.
#pragma once

#include <string>
#include <string_view>

#include "platform/FormatAttribute.h"

namespace ferrolt {

class ConsoleSink {
 public:
  // The text as it stands, no line end added.
  virtual void Print(std::string_view text) = 0;
  // What was printed is shown now.
  virtual void Flush() = 0;
  // One note of ours, without a prefix or a line end.
  virtual void Note(std::string_view line) = 0;

  // Printf-style; device text goes in as an argument, never as the format.
  void PrintFormatted(const char* format, ...) FERROLT_PRINTF(2);

 protected:
  ~ConsoleSink() = default;
};

// Standard output for the lines, standard error behind "ferrolt: " for the
// notes: the command-line tool's console.
ConsoleSink& StandardConsole();
// For a run about to end: flushes standard output now and, from then on, at
// every line. The thread that ends the run calls it before exit, and exit
// calls it again; safe on any thread.
void SettleStandardConsole();
// Takes every line and note and shows none.
ConsoleSink& SilentConsole();

}  // namespace ferrolt
