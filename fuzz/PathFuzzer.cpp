// Interface paths are the system's, but their text is not ours.
#include <cstdlib>
#include <string>

#include "VoxDevice/AudioHidCenter.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string path(data, data + size);
  for (const auto parse : {&CAudioHidCenter::ParseUsbHidPath, &CAudioHidCenter::ParseBluetoothHidPath}) {
    HidPathIdentity identity;
    const bool parsed = parse(path, identity);
    // What is taken from a path stands in it; what fails leaves nothing.
    if (parsed ? path.find(identity.instance) == std::string::npos || identity.instance.empty()
               : !identity.vid.empty()) {
      std::abort();
    }
  }
  return 0;
}
