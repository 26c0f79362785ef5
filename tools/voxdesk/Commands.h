// What voxdesk can do. Each returns when it is done or interrupted, and throws when it cannot be done, or has not begun
// when it is interrupted.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

enum ExitCode { kDone = 0, kFailed = 1, kWrongUsage = 2, kInterrupted = 130 };

// Why something could not be done, for standard error.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& sentence, ExitCode exitCode = kFailed)
      : std::runtime_error(sentence), exitCode_(exitCode) {}
  ExitCode exitCode() const { return exitCode_; }

 private:
  ExitCode exitCode_;
};

// Where a recording goes that is for standard output.
inline const std::string kStandardOutput = "-";

// The desk of what is plugged into the computer.
inline const std::string kHardware = "hardware";

struct Options {
  std::string deskFile;  // empty or "default": the default desk
  bool virtualTime = false;
  bool json = false;
  std::string device;  // empty: the first one
  std::string speech;
  std::string out = "voxdesk-recording.wav";
  std::string picture;    // where a picture of the recording goes; empty: nowhere
  bool rawSound = false;  // samples alone, without the header of a WAV file
  double seconds = 0;     // 0: no limit of its own
  std::string first;      // firmware files; empty: none
  std::string second;
  bool yes = false;  // without asking
  int dpi = 0;
  std::string url;        // empty: none
  int function = 0;       // of the M key
  std::string capture;    // where everything that passes is recorded; empty: nowhere
  bool noSpeech = false;  // ... but for speech, serial numbers and addresses
  double captureMegabytes = 64;
  std::vector<std::string> hex;  // a report
  double waitMilliseconds = 0;   // for what comes back
  bool force = false;
  bool raw = false;        // reports are shown as they pass
  std::string microphone;  // part of its name; empty: the library's choice
  std::string recording;   // the capture that is reported
  std::string reportPage;  // where the page goes; empty: none
  std::string speechFolder;
  bool text = false;
  double slow = 250;  // milliseconds
  bool noVoice = false;
  std::string junit;  // where the rules' results go; empty: nowhere
  bool verbose = false;
  bool quiet = false;  // only results and errors
  bool rehearse = false;
  std::string link;  // of the device that is rehearsed with: "usb", "bluetooth"; empty: USB where the model has it
  int tries = 0;     // messages that a rehearsal spoils at most; 0: as many as take about a minute
};

// Shows the devices, holds the Wren's voice key and records what it hears.
void showDesk(const Options& options);
void listDevices(const Options& options);
void monitor(const Options& options);
void record(const Options& options);
void updateFirmware(const Options& options);
// Tries an update with a simulated device, once for each thing that may go wrong with each of its messages.
void rehearseUpdate(const Options& options);
void setDpi(const Options& options);
void setUrl(const Options& options);
// Throws when the URL has a character that cannot be sent.
void checkUrl(const std::string& url);
void listMKey(const Options& options);
void setMKey(const Options& options);
void showState(const Options& options);
// Writes one report.
void sendReport(const Options& options);
void listSound(const Options& options);
void recordMicrophone(const Options& options);
void recordSpeaker(const Options& options);
// Shows the older hardware, its keys and the working mode.
void watchLegacy(const Options& options);
// What is plugged in, what stands in the way of its use, and what to do about it. Fails when there is anything.
void doctor(const Options& options);
// Tries with a device whether it keeps the protocol's rules. Fails when it breaks one.
void conform(const Options& options);
// Says what a capture tells: as a page, as a text, as JSON.
void report(const Options& options);
