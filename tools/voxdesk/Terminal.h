// What voxdesk prints: lines for people, or one JSON object per event for scripts.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

using Json = nlohmann::ordered_json;

class Terminal {
 public:
  explicit Terminal(bool json);
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  bool json() const { return json_; }
  // A line for people; nothing for scripts.
  void say(const std::string& line);
  // seconds: since the desk was set up. text: the line for people; empty for none.
  void event(double seconds, const std::string& name, const Json& fields, const std::string& text);
  // A line that the next one replaces, on a screen; elsewhere it is printed about once a second.
  void progress(double seconds, const std::string& line);

 private:
  void print(const std::string& line);

  const bool json_;
  const bool screen_;
  std::FILE* const out_;  // standard output, which the library does not get
  bool progressShown_ = false;
  double lastProgress_ = -1;
};

// Where Ctrl-C (or a request to terminate) has arrived: work ends at the next look.
void catchInterrupts();
bool interrupted();
