// A desk, a client at it, and a terminal: what every command works with.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Client.h"
#include "Commands.h"
#include "Desk.h"
#include "Terminal.h"
#include "tools/capture/Recorder.h"

// Sees all that passes between the library and the devices.
class Watcher {
 public:
  virtual ~Watcher() = default;
  // On any thread. microseconds: since any moment.
  virtual void observe(const VoxObservation& observation, std::int64_t microseconds) = 0;
};

// With small letters, of a to z alone.
std::string lower(std::string text);

class Session {
 public:
  // busy: somebody uses a simulated desk.
  // desk: another one than the options name.
  explicit Session(const Options& options, bool busy = false, Watcher* watcher = nullptr,
                   std::unique_ptr<Desk> desk = nullptr);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Goes on until `done` holds (true), the time is over or somebody interrupts (false). Shows the events named in
  // `show` (empty: all of them).
  bool runUntil(double seconds, const std::vector<std::string>& show, const std::function<bool()>& done);
  // Goes on until an event for which `wanted` holds; nothing when none comes in time. Shows nothing.
  std::optional<ClientEvent> waitFor(double seconds, const std::function<bool(const ClientEvent&)>& wanted);
  // Waits until every device of the desk has been announced and has told its state, as far as that is known.
  void discover(const std::vector<std::string>& show);
  // The announced device of this name: its number, its model, its identity, a part of its path; empty: the first one.
  DeviceView choose(const std::string& name);
  // Throws when what has just ended has been interrupted. when: "before ...".
  static void failIfInterrupted(const std::string& when);
  // Why there is nothing to work with.
  std::string noDevice() const;
  // Ends the client and checks that it has left nothing behind but this.
  void finish(const LeftOpen& byDesign = {});

  // Shows the reports themselves from now on, or no more.
  void showReports(bool show) { raw_ = show; }
  // Writes a report beside the library. Throws when it is not taken.
  void writeReport(int device, std::vector<std::uint8_t> report);

  Terminal terminal;
  std::unique_ptr<Desk> desk;
  std::unique_ptr<Client> client;

  static constexpr double kDiscoverySeconds = 4;  // devices answer within about two

 private:
  static void observe(const VoxObservation& observation, void* session);
  void startCapture(const Options& options);
  // Stops the client, then the recording of what passed, and says what has become of that.
  void stop();

  std::atomic<bool> raw_;
  Watcher* const watcher_;
  std::unique_ptr<capture::Recorder> recorder_;
  std::string captureProblem_;
};
