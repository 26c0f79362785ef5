// Names for rare branches: a stress test that never takes one of them tests less than it seems to.
#pragma once

#include <cstddef>

// The text of a probe, as a template argument.
template <std::size_t size>
struct ProbeName {
  consteval ProbeName(const char (&name)[size]) {
    for (std::size_t i = 0; i < size; ++i) text[i] = name[i];
  }
  char text[size];
};

#ifdef VOXDEVICE_EXPLORE
#include <cstdint>

// One of the list of all probes of the program, whether they are reached or not.
struct ProbeSite {
  explicit ProbeSite(const char* text) noexcept : name(text), next(first) { first = this; }
  const char* const name;
  ProbeSite* const next;
  std::uint64_t reached = 0;  // times
  static inline ProbeSite* first = nullptr;
};

template <ProbeName name>
struct ProbeSiteOf {
  static inline ProbeSite site{name.text};
};

// The client's code is called (1), has returned (-1): what it allocates is not the library's.
extern "C" void voxClientCode(int change) noexcept;
inline void AtClientCode(int change) noexcept { voxClientCode(change); }

// Counts that this place has been reached. The name begins with its subject: Probe<"reader: ...">().
template <ProbeName name>
void Probe() noexcept {
  ++ProbeSiteOf<name>::site.reached;
}
#else
template <ProbeName name>
constexpr void Probe() noexcept {}
constexpr void AtClientCode(int) noexcept {}
#endif
