// Calls of the seam that fail, or take their time, because somebody has asked for it: by their name, or by their
// number.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "sim/Kernel.h"

namespace sim {

// Calls are named as "waveInOpen" or "IAudioClient::Start".
class Faults {
 public:
  // Makes a call fail with this result, after so many that succeed. Where the result is a BOOL or a handle: anything
  // but 0.
  void fail(const std::string& call, std::int64_t result, int after = 0) { named_[call] = {result, after}; }
  // Makes a call of wave-in or of an audio interface take so long.
  void stall(const std::string& call, Time time) { stalls_[call] = time; }
  // The n-th call from now on that can fail does, with an error that it really has. 0: none does.
  void failCall(std::uint64_t n) {
    calls_ = 0;
    failing_ = n;
    failed_.clear();
  }
  void repair() {
    named_.clear();
    stalls_.clear();
    failCall(0);
  }

  std::uint64_t calls() const { return calls_; }             // that could fail, since failCall
  const std::string& failedCall() const { return failed_; }  // by its number; empty: none yet

  // ---- For the calls themselves ----
  // 0 when this one is to succeed; else its result, which is `usual` where only a number was asked for.
  std::int64_t of(const char* call, std::int64_t usual) {
    if (++calls_ == failing_) {
      failed_ = call;
      return usual;
    }
    return named(call);
  }
  // The same for one that is not counted: a call that hardly ever fails, as closing does.
  std::int64_t named(const char* call) {
    const auto it = named_.find(call);
    return it == named_.end() || it->second.after-- > 0 ? 0 : it->second.result;
  }
  Time stall(const char* call) const {
    const auto it = stalls_.find(call);
    return it == stalls_.end() ? Time{0} : it->second;
  }

 private:
  struct Named {
    std::int64_t result;
    int after;
  };
  std::map<std::string, Named, std::less<>> named_;
  std::map<std::string, Time, std::less<>> stalls_;
  std::uint64_t calls_ = 0;
  std::uint64_t failing_ = 0;
  std::string failed_;
};

}  // namespace sim
