// A flight recorder: what the library and its devices say to each other goes into a pcapng file, as it happens.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PcapngWriter.h"
#include "Privacy.h"
#include "VoxDevice/Observation.h"

namespace capture {

struct RecorderOptions {
  bool noSpeech = false;                          // for a file that is handed on: see Privacy
  std::uint64_t fileBytes = 64ULL * 1024 * 1024;  // a file that would get longer is continued in NAME-2.pcapng ...
  // Microseconds since 1970, of what is just happening; called on the threads of the library. Empty: the system's.
  std::function<std::int64_t()> now{};
  // Opens a file to write, anew; null: errno says why. What it throws leaves the constructor, and is the recorder's
  // problem where a file is continued, which another thread does. Empty: as fopen does.
  std::function<std::FILE*(const std::filesystem::path&)> open{};
};

// What is observed waits in memory for a thread that writes it, so that no device waits for a disk; where that is
// full, a moment for the disk, and then events are dropped, which the file says.
class Recorder {
 public:
  // Throws std::runtime_error, with a sentence, when the file cannot be made.
  explicit Recorder(const std::filesystem::path& path, RecorderOptions options = {});
  // Writes what is left.
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // For VoxObserver::SetCallback, with the recorder as its context.
  static void observe(const VoxObservation& observation, void* recorder) noexcept;

  // Writes what is left and ends: then these two are settled.
  void finish();
  // What was written: "case.pcapng, 123 events, 12.3 KB".
  std::string summary() const;
  // Why the recording is not whole; empty when it is.
  std::string problem() const;

 private:
  struct Block {
    Bytes bytes;
    bool isInterface = false;
  };
  void add(const VoxObservation& observation);
  // False when it was dropped.
  bool enqueue(std::unique_lock<std::mutex>& lock, Block block);
  void drop();
  std::uint32_t interfaceOf(const VoxObservation& observation);
  void writeLoop();
  void write(Block block);
  void openPart();
  void put(const Bytes& bytes);
  void fail(const std::filesystem::path& path = {});

  const std::filesystem::path path_;
  const RecorderOptions options_;
  const std::int64_t began_;  // by the system's clock: no other recording has the same

  mutable std::mutex mutex_;
  std::condition_variable filled_;
  std::condition_variable emptied_;
  std::vector<Block> queue_;
  std::size_t queuedBytes_ = 0;
  std::uint64_t dropped_ = 0;  // and the file does not say so yet
  std::uint64_t lost_ = 0;     // all that were dropped
  std::uint64_t events_ = 0;
  bool ending_ = false;
  Privacy privacy_;
  std::map<std::string, std::uint32_t> numbers_;  // of the interfaces
  std::string problem_;

  // The writing thread's.
  std::vector<Bytes> interfaces_;  // their blocks, which each part begins with
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_{nullptr, std::fclose};
  int part_ = 0;
  std::uint64_t partBytes_ = 0;
  std::uint64_t headBytes_ = 0;  // what each part begins with
  std::uint64_t allBytes_ = 0;
  std::thread writer_;
};

}  // namespace capture
