#include <stdexcept>

#include "sim/Hardware.h"

namespace sim {

std::unique_ptr<Hardware> Hardware::plugInto(Machine&) {
#ifdef __linux__
  throw std::runtime_error(
      "this program was built without hidapi, which real devices need: install libhidapi-dev, and build it again");
#else
  throw std::runtime_error("real devices can be plugged into the simulated machine on Linux only");
#endif
}

std::vector<std::wstring> Hardware::paths() { return {}; }

}  // namespace sim
