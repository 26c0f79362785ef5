// Report descriptors come from devices.
#include <algorithm>
#include <cstdlib>

#include "sim/linux/ReportDescriptor.h"

namespace {

// An id for each report or for none, and lengths that the readers of nodes can take.
bool sound(const std::map<std::uint8_t, std::uint16_t>& reports, std::uint16_t longest, bool numbered) {
  return std::all_of(reports.begin(), reports.end(), [&](const auto& report) {
    return (report.first != 0) == numbered && report.second >= 1 && report.second <= longest && longest <= 8193;
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const auto descriptor = sim::parseReportDescriptor({data, size});
  if (!descriptor) return 0;
  for (const sim::TopCollection& each : descriptor->collections) {
    if (!sound(each.input, each.inputLength(), descriptor->numbered) ||
        !sound(each.output, each.outputLength(), descriptor->numbered)) {
      std::abort();
    }
  }
  return 0;
}
