// The mice of a desk file behind hidraw nodes, for a program that knows nothing of it: hidraw_rig DESK.json PROGRAM ...
// Their firmware runs here, on the simulated machine; umockdev shows their folders in /sys and their nodes to the
// program (to be run under umockdev-wrapper). A node is a pipe, whose packets are input reports; what umockdev hands
// over are writes, and reads of a device that is gone. Beside them stand a foreign keyboard, and a mouse interface of
// each USB device. HIDRAW_RIG_DENY in the environment: for so many seconds nobody may open the nodes.
#include <fcntl.h>
#include <linux/hidraw.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <umockdev.h>
#undef FALSE  // macros of GLib
#undef TRUE
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/os.h"
#include "sim/VirtualDesk.h"

namespace {

using Bytes = std::vector<guint8>;

constexpr guint8 kMouseUsage = 2;
constexpr guint8 kKeyboardUsage = 6;
constexpr const char* kAddress = "C0:A8:01:02:03:FF";

// A collection of the generic desktop, with an input report of four bytes; id 0: it has none.
Bytes plainDescriptor(guint8 usage, guint8 id) {
  Bytes bytes{0x05, 0x01, 0x09, usage, 0xA1, 0x01};
  if (id != 0) bytes.insert(bytes.end(), {0x85, id});
  bytes.insert(bytes.end(), {0x75, 0x08, 0x95, 0x04, 0x09, 0x30, 0x81, 0x02, 0xC0});
  return bytes;
}

// Of reports with these bytes beside the id, which each of them has, or none of them.
Bytes ownDescriptor(guint8 count, bool numbered) {
  Bytes bytes{0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x75, 0x08};
  const auto field = [&](guint8 id, guint8 length, guint8 direction) {
    if (id != 0) bytes.insert(bytes.end(), {0x85, id});
    bytes.insert(bytes.end(), {0x95, length, 0x09, 0x01, direction, 0x02});
  };
  constexpr guint8 kInput = 0x81;
  constexpr guint8 kOutput = 0x91;
  if (!numbered) {
    field(0, count, kInput);
    field(0, count, kOutput);
  } else {
    for (const guint8 id : Bytes{0x05, 0x1A, 0x1B}) field(id, count, kInput);
    field(0x06, 20, kInput);
    field(0x05, count, kOutput);
    field(0x07, 8, kOutput);
  }
  bytes.push_back(0xC0);
  return bytes;
}

// A node, and who answers behind it.
class Node {
 public:
  Node(UMockdevTestbed* testbed, int number, const std::string& parent, const std::string& bus, guint16 vendor,
       guint16 product, const std::string& unique, Bytes descriptor)
      : testbed_(testbed), descriptor_(std::move(descriptor)), name_("hidraw" + std::to_string(number)) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%s:%04X:%04X.%04X", bus.c_str(), vendor, product, number + 1);
    const std::string id = text.data();
    std::snprintf(text.data(), text.size(), "%s:%08X:%08X", bus.c_str(), vendor, product);
    hid_ =
        umockdev_testbed_add_device(testbed, "hid", id.c_str(), parent.empty() ? nullptr : parent.c_str(), nullptr,
                                    "HID_ID", text.data(), "HID_NAME", "VoxMouse", "HID_UNIQ", unique.c_str(), nullptr);
    umockdev_testbed_set_attribute_binary(testbed, hid_.c_str(), "report_descriptor", descriptor_.data(),
                                          static_cast<gint>(descriptor_.size()));
    const std::string node = "/dev/" + name_;
    raw_ = umockdev_testbed_add_device(testbed, "hidraw", name_.c_str(), hid_.c_str(), "dev", "240:0", nullptr,
                                       "DEVNAME", node.c_str(), nullptr);
    umockdev_testbed_set_attribute_link(testbed, raw_.c_str(), "device", ("../../" + id).c_str());
    makePipe(node);
  }
  virtual ~Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  // From now on it can be called.
  Node* attach() {
    UMockdevIoctlBase* const calls = umockdev_ioctl_base_new();
    g_signal_connect(calls, "handle-ioctl", G_CALLBACK(&Node::onIoctl), this);
    g_signal_connect(calls, "handle-read", G_CALLBACK(&Node::onRead), this);
    g_signal_connect(calls, "handle-write", G_CALLBACK(&Node::onWrite), this);
    umockdev_testbed_attach_ioctl(testbed_, ("/dev/" + name_).c_str(), calls, nullptr);
    return this;
  }

  // udev has done with it.
  void allow() const { chmod(path_.c_str(), 0600); }

  // Pulled out: a read that waits wakes up, and fails.
  void remove() {
    gone_ = true;
    bring({0});
    umockdev_testbed_remove_device(testbed_, raw_.c_str());
    umockdev_testbed_remove_device(testbed_, hid_.c_str());
  }

 protected:
  void bring(const Bytes& report) const {
    if (write(pipe_, report.data(), report.size()) < 0 && errno != EAGAIN) std::perror("hidraw_rig: a report");
  }
  virtual bool taken(const guint8*, std::size_t) { return false; }

 private:
  void makePipe(const std::string& node) {
    char* const root = umockdev_testbed_get_root_dir(testbed_);
    path_ = root + node;
    g_free(root);
    unlink(path_.c_str());
    mkfifo(path_.c_str(), 0600);
    pipe_ = open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    fcntl(pipe_, F_SETPIPE_SZ, 1 << 20);
    fcntl(pipe_, F_SETFL, O_DIRECT | O_NONBLOCK);
    if (std::getenv("HIDRAW_RIG_DENY")) chmod(path_.c_str(), 0);
  }
  static gboolean onIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, Node* self) {
    if (umockdev_ioctl_client_get_request(client) != HIDIOCGRDESCSIZE) return FALSE;
    UMockdevIoctlData* const size =
        umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof(int), nullptr);
    int bytes = static_cast<int>(self->descriptor_.size());
    umockdev_ioctl_data_update(size, 0, reinterpret_cast<guint8*>(&bytes), sizeof bytes);
    umockdev_ioctl_data_unref(size);
    umockdev_ioctl_client_complete(client, 0, 0);
    return TRUE;
  }
  static gboolean onRead(UMockdevIoctlBase*, UMockdevIoctlClient* client, Node* self) {
    if (self->gone_) umockdev_ioctl_client_complete(client, -1, EIO);
    return self->gone_;
  }
  static gboolean onWrite(UMockdevIoctlBase*, UMockdevIoctlClient* client, Node* self) {
    const UMockdevIoctlData* const data = umockdev_ioctl_client_get_arg(client);
    const bool taken = !self->gone_ && self->taken(data->data, static_cast<std::size_t>(data->data_len));
    umockdev_ioctl_client_complete(client, taken ? data->data_len : -1, taken ? 0 : EIO);
    return TRUE;
  }

  UMockdevTestbed* const testbed_;
  Bytes descriptor_;
  const std::string name_;
  std::string hid_;
  std::string raw_;
  std::string path_;
  int pipe_ = -1;
  std::atomic<bool> gone_{false};
};

// One whose firmware runs on the machine, at the other end of this file of the machine's.
class MachineNode final : public Node {
 public:
  template <class... Arguments>
  MachineNode(sim::Machine& machine, HANDLE file, std::size_t length, bool numbered, bool hasMouse,
              Arguments&&... arguments)
      : Node(std::forward<Arguments>(arguments)...),
        file_(file),
        length_(length),
        numbered_(numbered),
        hasMouse_(hasMouse) {
    machine.spawn([this] { carry(); });
  }

 private:
  void carry() {
    Bytes report(length_);
    DWORD count = 0;
    while (os::ReadFile(file_, report.data(), static_cast<DWORD>(length_), &count, nullptr)) {
      if (hasMouse_) bring({0x01, 0x02, 0x03, 0x04, 0x05});  // somebody moves it
      bring(Bytes(report.begin() + (numbered_ ? 0 : 1), report.end()));
    }
  }
  // A report has its own length; the machine's files take whole ones, as Windows' do.
  bool taken(const guint8* bytes, std::size_t count) override {
    if (count != length_) std::fprintf(stderr, "hidraw_rig: a report of %zu bytes, not %zu\n", count, length_);
    Bytes report(bytes, bytes + count);
    report.resize(length_);
    DWORD written = 0;
    return os::WriteFile(file_, report.data(), static_cast<DWORD>(length_), &written, nullptr) != FALSE;
  }

  const HANDLE file_;
  const std::size_t length_;
  const bool numbered_;
  const bool hasMouse_;
};

// What is plugged into the machine, and so into the testbed.
class Rig {
 public:
  explicit Rig(sim::Machine& machine) : machine_(machine) {
    add(usbInterface(0x1234, 0x0001, 1, 0), 0x1234, 0x0001, plainDescriptor(kKeyboardUsage, 0));
    add(usbInterface(0x1234, 0x0002, 1, 0), 0x1234, 0x0002, {0x05});  // half an item
  }
  ~Rig() { g_object_unref(testbed_); }
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  void allow() const {
    for (const auto& node : nodes_) node->allow();
  }
  void follow() {
    std::vector<std::wstring> paths;
    machine_.locked([&]() REQUIRES(sim::gate) { paths = machine_.hid().paths(); });
    for (const std::wstring& path : paths) {
      if (!plugged_.contains(path)) plug(path);
    }
    std::erase_if(plugged_, [&](const auto& each) {
      if (std::find(paths.begin(), paths.end(), each.first) != paths.end()) return false;
      for (Node* const node : each.second) node->remove();
      return true;
    });
  }

 private:
  // The folder of an interface, the same one when the device comes again.
  std::string usbInterface(guint16 vendor, guint16 product, int interfaces, int number) {
    std::string& device = usbDevices_[product];
    if (device.empty()) device = usbDevice(vendor, product, interfaces);
    std::string& known = usbInterfaces_[device + std::to_string(number)];
    if (!known.empty()) return known;
    const std::string digits = "0" + std::to_string(number);
    const std::string name = device.substr(device.rfind('/') + 1) + ":1." + std::to_string(number);
    return known = umockdev_testbed_add_device(testbed_, "usb", name.c_str(), device.c_str(), "bInterfaceNumber",
                                               digits.c_str(), nullptr, "DEVTYPE", "usb_interface", nullptr);
  }
  std::string usbDevice(guint16 vendor, guint16 product, int interfaces) {
    std::array<char, 8> ids[2]{};
    std::snprintf(ids[0].data(), ids[0].size(), "%04x", vendor);
    std::snprintf(ids[1].data(), ids[1].size(), "%04x", product);
    const std::string count = " " + std::to_string(interfaces);
    const std::string port = "1-" + std::to_string(usbDevices_.size());
    return umockdev_testbed_add_device(testbed_, "usb", port.c_str(), nullptr, "idVendor", ids[0].data(), "idProduct",
                                       ids[1].data(), "bNumInterfaces", count.c_str(), "bcdDevice", "0100", nullptr,
                                       "DEVTYPE", "usb_device", nullptr);
  }
  Node* add(const std::string& parent, guint16 vendor, guint16 product, Bytes descriptor, const char* bus = "0003",
            const char* unique = "") {
    nodes_.push_back(
        std::make_unique<Node>(testbed_, next_++, parent, bus, vendor, product, unique, std::move(descriptor)));
    return nodes_.back()->attach();
  }

  void plug(const std::wstring& path) {
    const HANDLE file = os::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                        nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return;  // pulled out meanwhile
    os::HidD_SetNumInputBuffers(file, 512);
    HIDD_ATTRIBUTES ids{};
    ids.Size = sizeof ids;
    os::HidD_GetAttributes(file, &ids);
    PHIDP_PREPARSED_DATA preparsed = nullptr;
    HIDP_CAPS caps{};
    os::HidD_GetPreparsedData(file, &preparsed);
    os::HidP_GetCaps(preparsed, &caps);
    os::HidD_FreePreparsedData(preparsed);
    const bool numbered = caps.InputReportByteLength > 8;  // the older ones are not
    Bytes descriptor = ownDescriptor(static_cast<guint8>(caps.InputReportByteLength - 1), numbered);
    std::vector<Node*>& nodes = plugged_[path];
    std::string parent;
    if (path.find(L"_dev_vid&") != path.npos) {
      // Another service of the same device has a node of its own, which looks the same.
      Bytes other = plainDescriptor(kMouseUsage, 1);
      const Bytes keyboard = plainDescriptor(kKeyboardUsage, 2);
      other.insert(other.end(), keyboard.begin(), keyboard.end());
      nodes.push_back(add("", ids.VendorID, ids.ProductID, other, "0005", kAddress));
      // One node for the rest: its mouse is the first collection.
      const Bytes mouse = plainDescriptor(kMouseUsage, 1);
      descriptor.insert(descriptor.begin(), mouse.begin(), mouse.end());
    } else {
      parent = usbInterface(ids.VendorID, ids.ProductID, 2, 0);
      nodes.push_back(add(parent, ids.VendorID, ids.ProductID, plainDescriptor(kMouseUsage, 0)));
      parent = usbInterface(ids.VendorID, ids.ProductID, 2, 1);
    }
    nodes_.push_back(std::make_unique<MachineNode>(machine_, file, caps.InputReportByteLength, numbered, parent.empty(),
                                                   testbed_, next_++, parent, parent.empty() ? "0005" : "0003",
                                                   ids.VendorID, ids.ProductID, parent.empty() ? kAddress : "",
                                                   std::move(descriptor)));
    nodes.push_back(nodes_.back()->attach());
  }

  sim::Machine& machine_;
  UMockdevTestbed* const testbed_ = umockdev_testbed_new();
  int next_ = 0;
  std::map<guint16, std::string> usbDevices_;  // by product: each has a port of its own
  std::map<std::string, std::string> usbInterfaces_;
  std::vector<std::unique_ptr<Node>> nodes_;  // also those that have gone: somebody may just be calling them
  std::map<std::wstring, std::vector<Node*>> plugged_;
};

int watch(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: umockdev-wrapper hidraw_rig DESK.json PROGRAM [ARGUMENT ...]\n", stderr);
    return 2;
  }
  // Both are left to the process: threads of theirs go on.
  auto* const machine = new sim::Machine({.clock = sim::Clock::realTime});
  auto* const desk = new sim::VirtualDesk(*machine, sim::readDeskFile(argv[1]));
  Rig rig(*machine);
  desk->setUp();
  rig.follow();
  pid_t child = 0;
  if (const int error = posix_spawnp(&child, argv[2], nullptr, nullptr, argv + 2, environ)) {
    std::fprintf(stderr, "hidraw_rig: %s: %s\n", argv[2], g_strerror(error));
    return 1;
  }
  const char* deny = std::getenv("HIDRAW_RIG_DENY");
  const auto allowed = std::chrono::steady_clock::now() + std::chrono::duration<double>(deny ? std::atof(deny) : 0);
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0) {
    desk->catchUp();
    rig.follow();
    if (deny && std::chrono::steady_clock::now() >= allowed) {
      deny = nullptr;
      rig.allow();
    }
    machine->sleep(std::chrono::milliseconds(5));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const int code = watch(argc, argv);
    std::fflush(nullptr);
    _exit(code);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "hidraw_rig: %s\n", error.what());
    return 1;
  }
}
