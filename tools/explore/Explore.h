// Scenarios at random, whose schedules are searched: by their tests with a few seeds, and with --explore by the same
// programs for as long as one likes (see ExploreMain.cpp).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "sim/Machine.h"

// How many seeds a test runs: as many as usual, times VOXDEVICE_SEEDS where that is set (10, or 0.1).
std::uint64_t seeds(std::uint64_t usual);

// One run of a scenario: everything that it leaves to chance.
class Trial {
 public:
  // A seed says what happens, and by which of the strategies the schedule is searched.
  explicit Trial(std::uint64_t seed, sim::Clock clock = sim::Clock::virtualTime, sim::Journal* journal = nullptr);
  // Draws these numbers, then zeros, and makes these choices.
  Trial(std::uint64_t seed, std::vector<std::uint32_t> draws, const sim::Schedule& schedule, sim::Journal* journal);

  const std::uint64_t seed;
  bool coarse() const { return machine.timerPeriod.count() != 0; }
  sim::MachineOptions machine;

  // What happens; from any thread. Zero is to be the simplest that can.
  std::uint64_t operator()();
  std::size_t below(std::size_t limit) { return static_cast<std::size_t>((*this)() % limit); }
  bool chance(std::uint64_t of) { return (*this)() % of == 0; }
  std::chrono::milliseconds within(std::uint64_t milliseconds) {
    return std::chrono::milliseconds((*this)() % milliseconds);
  }

 private:
  std::mutex mutex_;
  std::mt19937_64 random_;
  bool repeats_ = false;
  std::vector<std::uint32_t> given_;
  std::size_t drawn_ = 0;
};

struct Scenario {
  // probes: the subjects, as "hub reader", whose probes all are to be reached.
  Scenario(const char* name, const char* probes, void (*run)(Trial&));
  const std::string name;
  const std::string probes;
  void (*const run)(Trial&);
  static std::vector<const Scenario*>& all();
};

// In a test: runs so many seeds (see seeds) until one fails, and says how to repeat that.
void explore(const Scenario& scenario, std::uint64_t usualSeeds);
