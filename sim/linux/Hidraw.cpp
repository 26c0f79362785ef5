// hidapi lists the nodes and reads and writes them. Two threads of each device that is open block there, without the
// machine's lock; what they bring, and what has become of what they took away, is told to the machine.
#include <fcntl.h>
#include <hidapi/hidapi.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "sim/Hardware.h"
#include "sim/linux/ReportDescriptor.h"

namespace sim {
namespace {

namespace fs = std::filesystem;

// Reads look so often whether they are still wanted: hidapi cannot end one that waits.
constexpr int kLookMilliseconds = 50;
constexpr std::size_t kLongestReport = 8193;  // with its id
// So long after it has appeared, udev may still be about to say whose a node is.
constexpr std::time_t kSettlingSeconds = 2;

// Of what hidapi keeps for the whole process: the list, and the last error of an open.
std::mutex& hidapi() {
  static std::mutex mutex;
  return mutex;
}

// A top-level collection of a node.
struct Interface {
  std::wstring path;     // as Windows spells it
  std::string node;      // as "/dev/hidraw3"
  std::string instance;  // the kernel's name for the device, another one each time that it is plugged in
  std::uint16_t vendor = 0;
  std::uint16_t product = 0;
  bool numbered = false;
  TopCollection reports;

  bool same(const Interface& other) const {
    return path == other.path && node == other.node && instance == other.instance;
  }
};

// ---- The list ----

std::string contents(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string fourDigits(unsigned number) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%04x", number & 0xFFFF);
  return text.data();
}

// Of Windows, which makes these eight digits from where the device is plugged in.
std::string placeDigits(const std::string& place) {
  std::uint32_t hash = 2166136261U;
  for (const char c : place) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%08x", hash);
  return text.data();
}

// A Bluetooth address as twelve digits; empty when it is none.
std::string addressDigits(const wchar_t* serial) {
  std::string digits;
  for (; serial && *serial; ++serial) {
    const wchar_t c = *serial >= L'A' && *serial <= L'F' ? *serial + (L'a' - L'A') : *serial;
    if (c == L':') continue;
    if ((c < L'0' || c > L'9') && (c < L'a' || c > L'f')) return {};
    digits += static_cast<char>(c);
  }
  return digits.size() == 12 ? digits : "";
}

// The path of the collection with this number (from 0) of so many. device: its folder in /sys. turn: counts up while
// another one has it, as of a Bluetooth device with two HID services.
std::wstring windowsPath(const hid_device_info& info, const fs::path& device, std::size_t number, std::size_t count,
                         unsigned turn) {
  const std::string vendor = fourDigits(info.vendor_id);
  const std::string product = fourDigits(info.product_id);
  const int collection = count > 1 ? static_cast<int>(number) + 1 : 0;
  const fs::path place = device.parent_path();  // the same each time, at a USB port
  if (info.bus_type == HID_API_BUS_BLUETOOTH) {
    // All of them have one parent. The source of the vendor's number is not known here; that of all models is USB's,
    // 02.
    const std::string address = addressDigits(info.serial_number);
    const std::string whose = (address.empty() ? device.string() : address) + std::string(turn, '+');
    const std::string instance = "8&" + placeDigits(whose) + "&0&" + fourDigits(static_cast<unsigned>(number));
    return bleHidPath("02" + vendor, product, instance, address.empty() ? "000000000000" : address, collection);
  }
  const std::string instance =
      "7&" + placeDigits(place.string() + std::string(turn, '+')) + "&0&" + fourDigits(static_cast<unsigned>(number));
  const bool composite = std::atoi(contents(place.parent_path() / "bNumInterfaces").c_str()) > 1;
  return usbHidPath(vendor, product, instance, composite ? info.interface_number : -1, collection);
}

// What stands against an open: an error of the system's, or 0.
int refusal(const std::string& node) { return access(node.c_str(), R_OK | W_OK) == 0 ? 0 : errno; }
bool isDenied(int error) { return error == EACCES || error == EPERM; }

bool isSettling(const std::string& node) {
  struct stat status {};
  if (!isDenied(refusal(node)) || stat(node.c_str(), &status) != 0) return false;
  const std::time_t age = std::time(nullptr) - status.st_ctime;
  return age >= 0 && age < kSettlingSeconds;  // a clock that was set back makes no node new
}

// What is listed; and nodes whose report descriptor is none.
struct Listed {
  std::vector<Interface> interfaces;
  std::vector<std::string> damaged;
};

void addInterfaces(const hid_device_info& info, Listed& found) {
  const std::string node = info.path;
  std::error_code error;
  const fs::path device = fs::canonical(fs::path("/sys/class/hidraw") / fs::path(node).filename() / "device", error);
  if (error || isSettling(node)) return;  // it has just gone, or come
  const std::string bytes = contents(device / "report_descriptor");
  const auto descriptor = parseReportDescriptor({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
  if (!descriptor || descriptor->collections.empty()) return found.damaged.push_back(node);
  const auto& collections = descriptor->collections;
  for (std::size_t i = 0; i < collections.size(); ++i) {
    std::wstring path;
    const auto isTaken = [&path](const Interface& other) { return other.path == path; };
    unsigned turn = 0;
    do path = windowsPath(info, device, i, collections.size(), turn++);
    while (std::any_of(found.interfaces.begin(), found.interfaces.end(), isTaken));
    found.interfaces.push_back({.path = path,
                                .node = node,
                                .instance = device.string(),
                                .vendor = info.vendor_id,
                                .product = info.product_id,
                                .numbered = descriptor->numbered,
                                .reports = collections[i]});
  }
}

Listed listInterfaces() {
  Listed found;
  const std::lock_guard lock(hidapi());
  const std::unique_ptr<hid_device_info, void (*)(hid_device_info*)> list(hid_enumerate(0, 0), &hid_free_enumeration);
  std::string last;  // an entry for each collection
  for (const hid_device_info* info = list.get(); info; info = info->next) {
    if (info->path && std::exchange(last, info->path) != info->path) addInterfaces(*info, found);
  }
  return found;
}

// What Windows says in such a case.
DWORD windowsError(int error) {
  if (isDenied(error)) return ERROR_ACCESS_DENIED;
  if (error == EBUSY) return ERROR_SHARING_VIOLATION;
  if (error == ENOENT || error == ENODEV || error == ENXIO) return ERROR_FILE_NOT_FOUND;
  if (error == EMFILE || error == ENFILE || error == ENOMEM) return ERROR_NO_SYSTEM_RESOURCES;
  return ERROR_GEN_FAILURE;
}

// ---- A device ----

// Threads beside the machine's. Their end waits for them.
class Helpers {
 public:
  ~Helpers() {
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return running_ == 0; });
  }
  // Throws when the system has none. Signals are for the client's threads: one would end a read here.
  void run(std::function<void()> body) {
    const std::lock_guard lock(mutex_);
    std::thread([this, body = std::move(body)]() mutable {
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_BLOCK, &all, nullptr);
      body();
      body = nullptr;
      const std::lock_guard end(mutex_);
      --running_;
      ended_.notify_all();
    }).detach();
    ++running_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  int running_ = 0;
};

class HidrawDevice;

// A node while it is open. Its two threads hold it, and have a handle of hidapi's each: one handle must not be used by
// two.
class Line : public std::enable_shared_from_this<Line> {
 public:
  Line(Machine& machine, Helpers& helpers, std::shared_ptr<HidrawDevice> device)
      : machine_(machine), helpers_(helpers), device_(std::move(device)) {}

  // With the machine's lock held.
  void start();
  void close();
  std::shared_ptr<HidTransfer> write(Bytes report);
  const std::shared_ptr<HidTransfer>& opening() const { return opening_; }

 private:
  struct Job {
    Bytes report;
    std::shared_ptr<HidTransfer> transfer;
  };
  void work();
  bool open();
  void read(hid_device& node);
  void carry(hid_device& node);
  void finish(HidTransfer& transfer, DWORD error);

  Machine& machine_;
  Helpers& helpers_;
  const std::shared_ptr<HidrawDevice> device_;
  const std::shared_ptr<HidTransfer> opening_ = std::make_shared<HidTransfer>();
  std::atomic<bool> closing_{false};
  std::mutex mutex_;  // of the following
  std::condition_variable changed_;
  std::deque<Job> jobs_;
};

class HidrawDevice final : public HidDevice {
 public:
  HidrawDevice(Interface known, Helpers& helpers)
      : HidDevice(known.path, known.vendor, known.product, known.reports.inputLength(), known.reports.outputLength()),
        known_(std::move(known)),
        helpers_(helpers) {
    // Windows keeps mice and keyboards for itself.
    const TopCollection& top = known_.reports;
    const bool windows = top.usagePage == 1 && (top.usage == 1 || top.usage == 2 || top.usage == 6 || top.usage == 7);
    if (windows) faults.refuseOpen = [](int) { return true; };
  }

  const Interface& known() const { return known_; }
  // Also by what the node's owner does not tell, as in a container.
  bool isDenied() const { return denied_ || sim::isDenied(refusal(known_.node)); }
  void setDenied(bool denied) { denied_ = denied; }
  // With the machine's lock held.
  bool isOpen() const { return line_ != nullptr; }
  void arrived(std::span<const std::uint8_t> report) REQUIRES(gate);
  void gone() REQUIRES(gate);

 protected:
  void onOutput(std::span<const std::uint8_t>) override {}
  std::shared_ptr<HidTransfer> take(std::span<const std::uint8_t> report) REQUIRES(gate) override;
  std::shared_ptr<HidTransfer> onOpened() REQUIRES(gate) override;
  void onLastClosed() REQUIRES(gate) override { hangUp(); }
  void onUnplugged() REQUIRES(gate) override { hangUp(); }

 private:
  std::shared_ptr<HidTransfer> failed(DWORD error) REQUIRES(gate);
  void hangUp();

  const Interface known_;
  Helpers& helpers_;
  std::atomic<bool> denied_{false};  // by the last open
  std::shared_ptr<Line> line_;       // while it is open
};

void Line::start() {
  helpers_.run([self = shared_from_this()] { self->work(); });
}

void Line::close() {
  closing_ = true;
  const std::lock_guard lock(mutex_);
  changed_.notify_all();
}

std::shared_ptr<HidTransfer> Line::write(Bytes report) {
  auto transfer = std::make_shared<HidTransfer>();
  const std::lock_guard lock(mutex_);
  jobs_.push_back({std::move(report), transfer});
  changed_.notify_all();
  return transfer;
}

void Line::finish(HidTransfer& transfer, DWORD error) {
  machine_.locked([&]() REQUIRES(gate) { transfer.finish(machine_.kernel(), error); });
}

void Line::work() {
  const std::string& path = device_->known().node;
  // The first open wakes the device, which takes time; and hidapi, for which others would wait, keeps no error.
  const int first = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  DWORD error = first < 0 ? windowsError(errno) : 0;
  device_->setDenied(error == ERROR_ACCESS_DENIED);
  const auto open = [&]() -> std::shared_ptr<hid_device> {
    if (error != 0 || closing_) return nullptr;
    const std::lock_guard lock(hidapi());
    hid_device* const node = hid_open_path(path.c_str());
    if (!node) return nullptr;
    return {node, &hid_close};
  };
  const auto input = open();
  const auto output = open();
  if (first >= 0) ::close(first);
  if (error == 0) error = ERROR_FILE_NOT_FOUND;
  if (input && output) {
    error = 0;
    try {
      helpers_.run([self = shared_from_this(), output] { self->carry(*output); });
    } catch (const std::system_error&) {
      error = ERROR_NOT_ENOUGH_MEMORY;
    }
  }
  finish(*opening_, error);
  if (error == 0) read(*input);
}

void Line::read(hid_device& node) {
  const bool numbered = device_->known().numbered;
  std::array<std::uint8_t, kLongestReport + 1> report{};
  while (!closing_) {
    // Before the first byte stands the id 0 of those that have none.
    const int count = hid_read_timeout(&node, report.data() + 1, report.size() - 1, kLookMilliseconds);
    if (count == 0) continue;
    machine_.locked([&]() REQUIRES(gate) {
      if (closing_) return;
      if (count < 0) return device_->gone();
      const std::span all(report.data(), static_cast<std::size_t>(count) + 1);
      device_->arrived(numbered ? all.subspan(1) : all);
    });
    if (count < 0) return;
  }
}

// What is still waiting when nobody wants it any more is not written.
void Line::carry(hid_device& node) {
  for (;;) {
    Job job;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return closing_ || !jobs_.empty(); });
      if (jobs_.empty()) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    DWORD error = ERROR_DEVICE_NOT_CONNECTED;
    if (!closing_) error = hid_write(&node, job.report.data(), job.report.size()) < 0 ? ERROR_GEN_FAILURE : 0;
    finish(*job.transfer, error);
  }
}

void HidrawDevice::arrived(std::span<const std::uint8_t> report) {
  // A node brings the reports of all its collections.
  if (known_.reports.input.contains(report[0])) sendInput(report);
}

void HidrawDevice::gone() {
  if (plugged()) machine().hid().unplug(shared_from_this());
}

std::shared_ptr<HidTransfer> HidrawDevice::failed(DWORD error) {
  auto transfer = std::make_shared<HidTransfer>();
  transfer->finish(machine().kernel(), error);
  return transfer;
}

std::shared_ptr<HidTransfer> HidrawDevice::onOpened() {
  if (line_) return line_->opening();
  if (sim::isDenied(refusal(known_.node))) return failed(ERROR_ACCESS_DENIED);
  const auto self = std::static_pointer_cast<HidrawDevice>(shared_from_this());
  auto line = std::make_shared<Line>(machine(), helpers_, self);
  try {
    line->start();
  } catch (const std::system_error&) {
    return failed(ERROR_NOT_ENOUGH_MEMORY);
  }
  line_ = std::move(line);
  return line_->opening();
}

// Windows' class driver takes all reports in the length of the longest one, and writes each in its own.
std::shared_ptr<HidTransfer> HidrawDevice::take(std::span<const std::uint8_t> report) {
  if (report.empty()) return failed(ERROR_INVALID_PARAMETER);  // it has no output report
  const auto own = known_.reports.output.find(report[0]);
  if (!line_ || own == known_.reports.output.end()) return failed(ERROR_INVALID_PARAMETER);
  const auto written = report.first(std::min<std::size_t>(report.size(), own->second));
  return line_->write({written.begin(), written.end()});
}

void HidrawDevice::hangUp() {
  if (const auto line = std::exchange(line_, nullptr)) line->close();
}

// ---- All of them ----

class Cable final : public Hardware {
 public:
  explicit Cable(Machine& machine) : machine_(machine) {
    machine_.locked([this]() REQUIRES(gate) { machine_.hid().setSource([this] { look(); }); });
  }
  ~Cable() override {
    machine_.locked([this]() REQUIRES(gate) { machine_.hid().setSource(nullptr); });
    const std::lock_guard pass(passes_);
    for (const auto& device : devices_) machine_.unplug(device);
  }
  Cable(const Cable&) = delete;
  Cable& operator=(const Cable&) = delete;

  std::string deniedNode(const std::wstring& path) override {
    const std::lock_guard pass(passes_);
    for (const auto& device : devices_) {
      if (device->path() == path && !device->faults.refuseOpen && device->isDenied()) {
        return device->known().node;
      }
    }
    return {};
  }
  std::vector<std::string> damagedNodes() override {
    const std::lock_guard pass(passes_);
    return damaged_;
  }
  std::vector<std::wstring> open() override {
    std::vector<std::wstring> paths;
    const std::lock_guard pass(passes_);
    machine_.locked([&]() REQUIRES(gate) {
      for (const auto& device : devices_) {
        if (device->isOpen()) paths.push_back(device->path());
      }
    });
    return paths;
  }

 private:
  // Plugs in what has come, and pulls out what has gone. One pass at a time: a list must not be older than the last
  // one.
  void look() {
    const std::lock_guard pass(passes_);
    Listed listed = listInterfaces();
    damaged_ = std::move(listed.damaged);
    std::vector<Interface>& found = listed.interfaces;
    machine_.locked([&]() REQUIRES(gate) {
      std::erase_if(devices_, [&](const auto& device) REQUIRES(gate) {
        const auto at =
            std::find_if(found.begin(), found.end(), [&](const Interface& each) { return each.same(device->known()); });
        if (at != found.end() && device->plugged()) return found.erase(at), false;
        machine_.hid().unplug(device);
        return true;
      });
      for (Interface& each : found) {
        devices_.push_back(std::make_shared<HidrawDevice>(std::move(each), helpers_));
        machine_.hid().plug(devices_.back());
      }
    });
  }

  Machine& machine_;
  Helpers helpers_;
  std::mutex passes_;
  std::vector<std::shared_ptr<HidrawDevice>> devices_;
  std::vector<std::string> damaged_;
};

}  // namespace

std::unique_ptr<Hardware> Hardware::plugInto(Machine& machine) { return std::make_unique<Cable>(machine); }

std::vector<std::wstring> Hardware::paths() {
  std::vector<std::wstring> paths;
  for (const Interface& each : listInterfaces().interfaces) paths.push_back(each.path);
  return paths;
}

}  // namespace sim
