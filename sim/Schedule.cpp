#include "sim/Schedule.h"

#include <algorithm>

#include "sim/Kernel.h"

namespace sim {
namespace {

// Points between two at which a thread is overtaken, on average, in units of weight.
constexpr int kMeanDistance = 16;
// A thread that comes to so many points without giving way may be waiting for one that it keeps from running.
constexpr std::uint32_t kLongestStreak = 2000;

std::uint64_t key(std::uint32_t thread, std::uint32_t point) { return (std::uint64_t{thread} << 32) | point; }

}  // namespace

void Journal::add(const Choice& made) {
  if (choices < choice.size()) {
    choice[choices++] = made;
  } else {
    complete = false;
  }
}

void Journal::add(std::uint32_t drawn) {
  if (draws < draw.size()) {
    draw[draws++] = drawn;
  } else {
    complete = false;
  }
}

Chooser::Chooser(std::uint64_t seed, const ScheduleOptions& options) : options_(options), random_(seed) {
  if (options.given) {
    for (const Choice& choice : *options.given) given_[key(choice.thread, choice.point)] = choice.next;
  } else if (options.strategy == Strategy::priorities) {
    for (unsigned i = 0; i < options.changes; ++i) changesAt_.push_back(1 + random_() % options.points);
    std::sort(changesAt_.rbegin(), changesAt_.rend());
  }
}

Turns& Chooser::turns(Thread& thread) { return thread.turns; }

bool Chooser::interrupts(Thread& me, int weight) {
  Turns& mine = turns(me);
  if (options_.given) return given_.count(key(me.id, mine.points + 1)) != 0;
  if (options_.strategy == Strategy::shuffle) {
    untilOvertaken_ -= weight;
    if (untilOvertaken_ > 0) return false;
    untilOvertaken_ = 1 + static_cast<int>(random_() % (2 * kMeanDistance - 1));
    return true;
  }
  bool falls = ++mine.streak > kLongestStreak;
  for (; !changesAt_.empty() && changesAt_.back() <= points_; changesAt_.pop_back()) falls = true;
  if (falls) {
    mine.priority = --lowest_;
    mine.streak = 0;
  }
  return falls || look_;
}

std::size_t Chooser::choose(Thread& me, std::size_t inOrder, std::size_t due, std::span<Thread* const> ready) {
  pass(me);
  if (options_.journal) options_.journal->points = points_;
  Turns& mine = turns(me);
  const std::size_t which = options_.given                           ? repeat(me, inOrder, due, ready)
                            : options_.strategy == Strategy::shuffle ? draw(due, ready)
                                                                     : highest(due, ready);
  if (which >= due && ready[which - due] != &me) mine.streak = 0;
  if (which == inOrder) return which;
  const Choice made{
      me.id, mine.points,
      which < due ? -static_cast<std::int32_t>(which) : static_cast<std::int32_t>(ready[which - due]->id)};
  if (options_.journal) options_.journal->add(made);
  if (options_.told) options_.told(made);
  return which;
}

std::size_t Chooser::draw(std::size_t due, std::span<Thread* const> ready) {
  return static_cast<std::size_t>(random_() % (due + ready.size()));
}

// Timers that are due have, together, a priority that is drawn anew each time.
std::size_t Chooser::highest(std::size_t due, std::span<Thread* const> ready) {
  look_ = false;
  std::uint64_t best = due > 0 ? (lowest_ / 2 + random_() % (std::uint64_t{1} << 32)) : 0;
  std::size_t which = 0;
  for (std::size_t i = 0; i < ready.size(); ++i) {
    std::uint64_t& priority = turns(*ready[i]).priority;
    if (priority == 0) priority = (std::uint64_t{1} << 32) + random_() % (std::uint64_t{1} << 31);
    if (priority > best || (i == 0 && due == 0)) {
      best = priority;
      which = due + i;
    }
  }
  return which;
}

std::size_t Chooser::repeat(Thread& me, std::size_t inOrder, std::size_t due, std::span<Thread* const> ready) const {
  const auto known = given_.find(key(me.id, turns(me).points));
  if (known == given_.end()) return inOrder;
  const std::int32_t next = known->second;
  if (next <= 0) return static_cast<std::size_t>(-next) < due ? static_cast<std::size_t>(-next) : inOrder;
  for (std::size_t i = 0; i < ready.size(); ++i) {
    if (ready[i]->id == static_cast<std::uint32_t>(next)) return due + i;
  }
  return inOrder;
}

}  // namespace sim
