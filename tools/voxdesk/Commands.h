// What voxdesk can do. Each returns when it is done or interrupted, and throws Failure when it cannot be done.
#pragma once

#include <stdexcept>
#include <string>

struct Options {
  std::string deskFile;  // empty: the default desk
  bool virtualTime = false;
  bool json = false;
  int device = 0;  // 0: the first one
  std::string speech;
  std::string out;
  double seconds = 0;  // 0: no limit of its own
};

// Why something could not be done, for standard error.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Shows the devices, holds the Wren's voice key and records what it hears.
void showDesk(const Options& options);
void listDevices(const Options& options);
void monitor(const Options& options);
void record(const Options& options);
