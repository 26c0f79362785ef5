// What voxdesk prints: lines for people, or one JSON object per event for scripts.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

class Table;

using Json = nlohmann::ordered_json;

class Terminal {
 public:
  // streaming: standard output is for the recording, and what is printed goes to standard error.
  // quiet: only results are printed.
  Terminal(bool json, bool streaming, bool quiet);
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  bool json() const { return json_; }
  // Standard output; for the recording only when it is for that.
  std::FILE* output() { return output_; }
  bool quiet() const { return quiet_; }
  // Characters of a line, where people look at what goes on; 0: nobody does.
  std::size_t columns() const;
  // A line for people on what goes on; nothing for scripts.
  void say(const std::string& line);
  // The same with a result.
  void tell(const std::string& line);
  void table(const Table& table);
  // seconds: since the desk was set up. text: the line for people; empty for none.
  void event(double seconds, const std::string& name, const Json& fields, const std::string& text);
  // A line that the next one replaces, on a screen that can; elsewhere it is printed about once a second. Between the
  // texts stands a bar of so many marks, as wide as there is room.
  void progress(double seconds, const std::string& before, double fraction, char mark, const std::string& after);

 private:
  void print(const std::string& line);
  void flush();
  std::size_t roomForLine() const;

  const bool json_;
  const bool quiet_;
  std::FILE* const output_;  // standard output, which the library does not get
  std::FILE* const out_;     // where the lines go
  const bool screen_;
  const bool dumb_;  // a line that was shown stays
  bool progressShown_ = false;
  double lastProgress_ = -1;
};

// Without what commands a terminal, as a device's name may be meant to; lines stay.
std::string printable(std::string text);

// Ctrl-C, and what else asks a program to end, is noted from now on: work ends at the next look, as if its time were
// over. Once more, a little later, and the program ends at once.
void catchInterrupts();
// Whether somebody has asked.
bool endRequested();
// Whether work is to end: somebody has asked, or standard output takes no more.
bool interrupted();
// Work that must not stop half-way is not interrupted from now on.
void declineInterrupts();

// Notes that standard output takes no more, by errno.
void outputFailed(int error);
// The first such errno; 0 while all is well.
int outputProblem();
