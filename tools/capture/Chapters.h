// What is followed of each device while a story is told: its presence, requests, keys, speech and updates.
#pragma once

#include <map>
#include <memory>
#include <optional>

#include "audio/SbcDecoder.h"
#include "tools/capture/Decode.h"
#include "tools/capture/Story.h"

namespace capture {

// A report where it stands in the story.
struct Passed {
  Time time;
  bool sent;
  std::size_t frame;  // its number in the story; of speech it has none
  const Decoded& report;
};

// Opened, awake, asleep, gone.
class Presence {
 public:
  void enter(Device& device, Time time, const char* state);
  void end(Device& device, Time time);
};

class Requests {
 public:
  Requests(Story& story, std::size_t device) : story_(story), device_(device) {}
  void pass(const Passed& passed);
  // What was sent last has not gone out.
  void notWritten(std::size_t frame);
  // Nobody answers any more.
  void forget();
  void end(Time time, std::map<std::uint8_t, RequestCount>& counts);
  // Unanswered, up to now.
  std::size_t heartbeatsInARow() const { return heartbeats_.size(); }

 private:
  struct Waiting {
    std::size_t frame;
    Time time;
    bool receiver;
  };
  void answer(const Request& request, const Waiting& asked, const Passed& passed);
  void giveUp(const Request& request, const Waiting& asked);
  void endSilence();

  Story& story_;
  const std::size_t device_;
  std::map<std::uint8_t, Waiting> waiting_;  // by command
  std::map<std::uint8_t, RequestCount> counts_;
  std::vector<std::size_t> heartbeats_;  // unanswered ones in a row
  std::vector<std::size_t> ofReceiver_;  // unanswered by it, if there is one
};

class Keys {
 public:
  Keys(Story& story, std::size_t device) : story_(story), device_(device) {}
  void pass(const Passed& passed, const ModelSheet& model);
  // All keys are up: their device has gone.
  void release(Time time);
  void end(Time time);

 private:
  void act(KeyAction action, Time time);
  void down(const char* key, Time time);
  void up(const char* key, Time time);
  void report(std::string key, Time time);
  void older(std::uint8_t key, Time time);

  Story& story_;
  const std::size_t device_;
  std::map<std::string, std::size_t> down_;  // a key, and its press in the story
  std::uint8_t older_ = 0;
};

class Voice {
 public:
  Voice(Story& story, std::size_t device) : story_(story), device_(device) {}
  void pass(const Passed& passed);
  void close(Time time);

 private:
  void open(Time time);
  void speech(const Passed& passed);

  Story& story_;
  const std::size_t device_;
  std::optional<Speech> current_;
  std::optional<Time> stopAsked_;
  std::optional<std::size_t> before_;  // the channel that was closed last
  Time longestPause_ = 0;
  std::unique_ptr<CSbcDecoder> sbc_;
};

class Updates {
 public:
  Updates(Story& story, std::size_t device) : story_(story), device_(device) {}
  // True for the one more OtaComplete that nobody answers.
  bool isFarewell(const Decoded& report) const;
  void pass(const Passed& passed);
  void close(const char* why);

 private:
  void command(const Passed& passed);
  void reply(const Passed& passed);
  void begin(const Passed& passed);
  void done();

  Story& story_;
  const std::size_t device_;
  std::optional<Update> current_;
  bool prepared_ = false;  // by a Tern, whose messages are bytes without an index
  bool finished_ = false;  // the last image got through, and nothing was sent since
  std::uint64_t offset_ = 0;
  std::string waitsFor_;  // the request that is not answered yet
};

}  // namespace capture
