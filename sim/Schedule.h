// Who goes on when several could: the choices of one run on the virtual clock. They are drawn from a seed in one of two
// ways, since each finds what the other does not, or given, to repeat a run.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <span>
#include <unordered_map>
#include <vector>

namespace sim {

class Thread;

enum class Strategy {
  // Any thread that is ready may go on, and one may be overtaken at every point: at each call of the seam, and in
  // builds
  // for it at each access of a shared field.
  shuffle,
  // The ready thread with the highest priority goes on. At a few points, drawn beforehand, the running one falls behind
  // all others ("probabilistic concurrency testing"): finds what needs few switches at exactly the right places.
  priorities,
};

// At its point-th point another thread went first than in order.
struct Choice {
  std::uint32_t thread = 0;  // the id of the one that came to the point
  std::uint32_t point = 0;
  std::int32_t next = 0;  // the id of the one that went first; -n: the n-th of the timers that were due (from 0)
  bool operator==(const Choice&) const = default;
};
using Schedule = std::vector<Choice>;

// What a run has chosen and drawn. Plain memory, so that it can lie where the end of the process does not take it.
struct Journal {
  std::size_t choices = 0;
  std::size_t draws = 0;
  std::uint64_t points = 0;  // of all threads
  bool complete = true;      // everything has found room
  std::array<Choice, 1 << 18> choice;
  std::array<std::uint32_t, 1 << 14> draw;

  void add(const Choice& made);
  void add(std::uint32_t drawn);
};

struct ScheduleOptions {
  Strategy strategy = Strategy::shuffle;
  unsigned changes = 3;             // of priorities, in a run
  std::uint64_t points = 10'000;    // that a run is expected to have; the changes lie among them
  const Schedule* given = nullptr;  // the choices of another run, to be made again
  Journal* journal = nullptr;       // where the choices are kept
  std::function<void(const Choice&)> told{};
};

// What a thread's turns are decided by.
struct Turns {
  std::uint32_t points = 0;
  std::uint32_t streak = 0;    // points since it last gave way
  std::uint64_t priority = 0;  // the highest goes on; 0: not drawn yet
};

class Chooser {
 public:
  Chooser(std::uint64_t seed, const ScheduleOptions& options);

  // The running thread comes to a point at which others could go first. True: choose is to be asked. weight: how
  // probable that is, 4 at a call, 1 at a field.
  bool interrupts(Thread& me, int weight);
  // Nobody else could go first, or nobody does.
  void pass(Thread& me) { ++turns(me).points, ++points_; }
  // A thread has become ready.
  void becameReady() { look_ = true; }
  // Which goes first: below `due`, a timer that is due; from there on, a thread. inOrder: which would, otherwise.
  std::size_t choose(Thread& me, std::size_t inOrder, std::size_t due, std::span<Thread* const> ready);

 private:
  static Turns& turns(Thread& thread);
  std::size_t draw(std::size_t due, std::span<Thread* const> ready);
  std::size_t highest(std::size_t due, std::span<Thread* const> ready);
  std::size_t repeat(Thread& me, std::size_t inOrder, std::size_t due, std::span<Thread* const> ready) const;

  const ScheduleOptions options_;
  std::mt19937_64 random_;
  std::uint64_t points_ = 0;
  int untilOvertaken_ = 0;
  std::vector<std::uint64_t> changesAt_;  // in points, the last first
  std::uint64_t lowest_ = std::uint64_t{1} << 32;
  bool look_ = false;  // somebody may have a higher priority than the running thread
  std::unordered_map<std::uint64_t, std::int32_t> given_;  // by thread and point
};

}  // namespace sim
