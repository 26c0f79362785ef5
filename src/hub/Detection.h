// One discovery thread, and what it has in hand.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "hub/Hub.h"
#include "support/HidFile.h"

// Not on the thread's stack: a thread that is ended by force, inside the client's code, loses nothing.
struct CHub::Detection {
  std::vector<std::wstring> paths;
  std::vector<std::wstring> foreign;  // at the same places, the paths that the last pass found to be none of ours
  std::string path;                   // the one that is looked at
  HidPathIdentity identity;
  std::shared_ptr<HidFile> readFile;
  std::shared_ptr<HidFile> writeFile;
  CWorker thread;
  std::shared_ptr<Detection> before;  // another one; stays as it is
};
