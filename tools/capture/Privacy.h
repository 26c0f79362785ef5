// What a customer does not want to hand on.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <utility>

namespace capture {

// Replaces speech by zeros, and serial numbers, Bluetooth addresses and what an interface path says of them by invented
// ones: the same every time that the same one comes. Everything else stays as it was.
class Privacy {
 public:
  void clean(std::span<std::uint8_t> report);
  std::string cleanPath(const std::string& path);

 private:
  // `length` characters, whatever else the same bytes have been: each length has its own.
  std::string invent(const std::string& true_, std::size_t length);

  std::map<std::pair<std::size_t, std::string>, std::string> invented_;
};

}  // namespace capture
