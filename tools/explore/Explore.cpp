#include "tools/explore/Explore.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

std::uint64_t seeds(std::uint64_t usual) {
  const char* factor = std::getenv("VOXDEVICE_SEEDS");
  if (!factor) return usual;
  return std::max<std::uint64_t>(1, static_cast<std::uint64_t>(static_cast<double>(usual) * std::atof(factor)));
}

Trial::Trial(std::uint64_t theSeed, sim::Clock clock, sim::Journal* journal) : seed(theSeed), random_(theSeed) {
  machine.clock = clock;
  machine.seed = seed;
  // A run has some thousand to some hundred thousand points.
  machine.schedule = {.strategy = seed % 2 == 0 ? sim::Strategy::priorities : sim::Strategy::shuffle,
                      .changes = static_cast<unsigned>(1 + seed / 2 % 5),
                      .points = std::uint64_t{500} << (seed / 2 % 8),
                      .journal = journal};
  // As the timer of a real system.
  if (clock == sim::Clock::virtualTime && seed % 8 < 2) machine.timerPeriod = std::chrono::microseconds(15'625);
  if (seed % 8 == 2 || seed % 8 == 3) machine.firstTick = DWORD{0} - 4'000;  // begins anew in the middle of the run
}

Trial::Trial(std::uint64_t theSeed, std::vector<std::uint32_t> draws, const sim::Schedule& schedule,
             sim::Journal* journal)
    : Trial(theSeed, sim::Clock::virtualTime, journal) {
  repeats_ = true;
  given_ = std::move(draws);
  machine.schedule.given = &schedule;
}

std::uint64_t Trial::operator()() {
  const std::lock_guard lock(mutex_);
  if (repeats_) return drawn_ < given_.size() ? given_[drawn_++] : 0;
  const auto drawn = static_cast<std::uint32_t>(random_() >> 32);
  if (machine.schedule.journal) machine.schedule.journal->add(drawn);
  return drawn;
}

Scenario::Scenario(const char* itsName, const char* itsProbes, void (*body)(Trial&))
    : name(itsName), probes(itsProbes), run(body) {
  all().push_back(this);
}

std::vector<const Scenario*>& Scenario::all() {
  static std::vector<const Scenario*> scenarios;
  return scenarios;
}

void explore(const Scenario& scenario, std::uint64_t usualSeeds) {
  for (std::uint64_t seed = 1; seed <= seeds(usualSeeds); ++seed) {
    SCOPED_TRACE(scenario.name + " seed " + std::to_string(seed));
    Trial run(seed);
    scenario.run(run);
    if (!::testing::Test::HasFailure()) continue;
    std::printf("To look closer: this program with --explore %s --from %llu --seeds 1 --shrink\n",
                scenario.name.c_str(), static_cast<unsigned long long>(seed));
    return;
  }
}
