#include "tools/capture/Recorder.h"

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "support/Text.h"

namespace capture {

namespace {

constexpr std::size_t kQueueBytes = 4 * 1024 * 1024;
// Twice this at most, and less than the time after which a callback is ended by force.
constexpr std::chrono::milliseconds kPatience{400};
constexpr std::uint32_t kClient = 0;  // the interface that stands for what the client was told
constexpr std::uint16_t kFormerVendor = 0x0D8C;
constexpr std::uint16_t kFormerProducts[] = {0x0132, 0x0135};

const char* nameOf(DataChannel link) {
  switch (link) {
    case DataChannel_Usb:
      return "usb";
    case DataChannel_BluetoothLE:
      return "ble";
    case DataChannel_Receiver:
      return "receiver";
    default:
      return "unknown";
  }
}

std::string describe(const VoxObservation& observation) {
  const bool former = observation.vendor == kFormerVendor &&
                      (observation.product == kFormerProducts[0] || observation.product == kFormerProducts[1]);
  char text[96];
  std::snprintf(text, sizeof text, "vid=%04x pid=%04x link=%s in=%d out=%d former=%d", observation.vendor,
                observation.product, nameOf(observation.link), observation.inputLength, observation.outputLength,
                former ? 1 : 0);
  return text;
}

const char* eventOf(VoxObservationKind kind) {
  switch (kind) {
    case VoxObservation_WriteFailed:
      return "write-failed";
    case VoxObservation_ReadFailed:
      return "read-failed";
    case VoxObservation_Opened:
      return "opened";
    case VoxObservation_Refused:
      return "refused";
    default:
      return nullptr;  // reports speak for themselves, and what was told has its name
  }
}

std::string comment(const VoxObservation& observation) {
  std::string text = "device=" + std::to_string(observation.device) + " thread=" + std::to_string(observation.thread) +
                     " tick=" + std::to_string(observation.tick);
  if (const char* event = observation.name ? observation.name : eventOf(observation.kind)) {
    text += std::string(" event=") + event;
  }
  if (observation.error != 0) text += " error=" + std::to_string(observation.error);
  for (int i = 0; i < observation.valueCount; ++i) {
    text += (i == 0 ? " values=" : ",") + std::to_string(observation.values[i]);
  }
  if (observation.text) {
    text += " text=";
    for (const char c : Utf8(observation.text)) text += c == '\n' ? ' ' : c;
  }
  return text;
}

std::string bytesText(std::uint64_t bytes) {
  char text[32];
  if (bytes < 1024 * 1024) {
    std::snprintf(text, sizeof text, "%.1f KB", static_cast<double>(bytes) / 1024);
  } else {
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1024 / 1024);
  }
  return text;
}

std::FILE* create(const std::filesystem::path& path) {
#ifdef _WIN32
  return _wfopen(path.c_str(), L"wb");
#else
  return std::fopen(path.c_str(), "wb");
#endif
}

std::string nameOf(const std::filesystem::path& path) {
  const auto name = path.u8string();
  return {name.begin(), name.end()};
}

std::int64_t sinceEpoch() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

RecorderOptions withClock(RecorderOptions options) {
  if (!options.now) {
    // Nobody sets this clock back.
    options.now = [began = sinceEpoch(), at = std::chrono::steady_clock::now()] {
      const auto passed = std::chrono::steady_clock::now() - at;
      return began + std::chrono::duration_cast<std::chrono::microseconds>(passed).count();
    };
  }
  return options;
}

}  // namespace

Recorder::Recorder(const std::filesystem::path& path, RecorderOptions options)
    : path_(path), options_(withClock(std::move(options))), began_(sinceEpoch()) {
  openPart();
  if (!problem_.empty()) throw std::runtime_error(problem_);
  write({interfaceDescription(kLinkExportedPdu, "client", "what the client was told"), true});
  writer_ = std::thread([this] { writeLoop(); });
}

Recorder::~Recorder() { finish(); }

void Recorder::observe(const VoxObservation& observation, void* recorder) noexcept {
  try {
    static_cast<Recorder*>(recorder)->add(observation);
  } catch (const std::exception&) {
    // What there is no memory for is not recorded.
  }
}

void Recorder::add(const VoxObservation& observation) {
  const std::int64_t time = options_.now();
  std::string text = comment(observation);
  Bytes report;
  if (observation.report) report.assign(observation.report, observation.report + observation.reportLength);
  const PduDirection direction = observation.kind == VoxObservation_Sent       ? PduDirection::sent
                                 : observation.kind == VoxObservation_Received ? PduDirection::received
                                                                               : PduDirection::none;
  std::unique_lock lock(mutex_);
  if (ending_) return;
  if (options_.noSpeech) privacy_.clean(report);
  const std::uint32_t interfaceNumber = interfaceOf(observation);
  if (dropped_ > 0) {
    const std::string gap = "device=-1 event=dropped values=" + std::to_string(dropped_);
    if (!enqueue(lock, {enhancedPacket(kClient, time, exportedPdu(PduDirection::none, {}), gap)})) {
      drop();
      return;
    }
    dropped_ = 0;
  }
  if (enqueue(lock, {enhancedPacket(interfaceNumber, time, exportedPdu(direction, report), text)})) {
    ++events_;
  } else {
    drop();
  }
}

void Recorder::drop() {
  ++dropped_;
  ++lost_;
}

std::uint32_t Recorder::interfaceOf(const VoxObservation& observation) {
  if (!observation.path) return kClient;
  // What an interface tells of itself only when it is open is part of its identity here.
  std::string description = describe(observation);
  std::string path = Utf8(observation.path);
  const auto [known, isNew] =
      numbers_.try_emplace(path + '\n' + description, static_cast<std::uint32_t>(numbers_.size() + 1));
  const std::uint32_t number = known->second;
  if (isNew) {
    if (options_.noSpeech) path = privacy_.cleanPath(path);
    // Nothing is dropped that later packets name.
    queue_.push_back({interfaceDescription(kLinkExportedPdu, path, description), true});
    queuedBytes_ += queue_.back().bytes.size();
    filled_.notify_one();
  }
  return number;
}

bool Recorder::enqueue(std::unique_lock<std::mutex>& lock, Block block) {
  const auto hasRoom = [&] { return queuedBytes_ + block.bytes.size() <= kQueueBytes; };
  if (!emptied_.wait_for(lock, kPatience, hasRoom)) return false;
  queuedBytes_ += block.bytes.size();
  queue_.push_back(std::move(block));
  filled_.notify_one();
  return true;
}

void Recorder::writeLoop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    filled_.wait(lock, [this] { return !queue_.empty() || ending_; });
    if (queue_.empty()) return;
    std::vector<Block> blocks = std::exchange(queue_, {});
    queuedBytes_ = 0;
    emptied_.notify_all();
    lock.unlock();
    for (Block& block : blocks) write(std::move(block));
    if (file_ && std::fflush(file_.get()) != 0) fail();
    lock.lock();
  }
}

void Recorder::write(Block block) {
  if (!file_) return;
  if (partBytes_ + block.bytes.size() > options_.fileBytes && partBytes_ > headBytes_) openPart();
  put(block.bytes);
  if (block.isInterface) interfaces_.push_back(std::move(block.bytes));
}

void Recorder::openPart() {
  std::filesystem::path path = path_;
  if (++part_ > 1) {
    path.replace_filename(path_.stem());
    path += "-" + std::to_string(part_);
    path += path_.extension();
  }
  try {
    file_.reset(options_.open ? options_.open(path) : create(path));
  } catch (const std::exception& error) {
    if (part_ == 1) throw;  // later ones are opened by the thread that writes, where nobody hears it
    file_.reset();
    const std::lock_guard lock(mutex_);
    problem_ = error.what();
    return;
  }
  if (!file_) return fail(path);
  partBytes_ = 0;
  char comment[64];
  std::snprintf(comment, sizeof comment, "part=%d of=%" PRId64, part_, began_);
  put(sectionHeader("voxdevice " VOXDEVICE_VERSION, comment));
  for (const Bytes& description : interfaces_) put(description);
  headBytes_ = partBytes_;
}

void Recorder::put(const Bytes& bytes) {
  if (!file_) return;
  if (std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size()) return fail();
  partBytes_ += bytes.size();
  allBytes_ += bytes.size();
}

// Nothing more is written.
void Recorder::fail(const std::filesystem::path& path) {
  const std::string why = std::strerror(errno);
  file_.reset();
  const std::lock_guard lock(mutex_);
  problem_ = nameOf(path.empty() ? path_ : path) + ": " + why;
}

void Recorder::finish() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    filled_.notify_one();
  }
  if (writer_.joinable()) writer_.join();
  if (file_ && std::fclose(file_.release()) != 0) fail();
}

std::string Recorder::summary() const {
  const std::lock_guard lock(mutex_);
  return nameOf(path_) + (part_ > 1 ? " and " + std::to_string(part_ - 1) + " more" : std::string()) + ": " +
         std::to_string(events_) + " events, " + bytesText(allBytes_);
}

std::string Recorder::problem() const {
  const std::lock_guard lock(mutex_);
  if (!problem_.empty() || lost_ == 0) return problem_;
  return nameOf(path_) + ": the disk was too slow for " + std::to_string(lost_) + " events";
}

}  // namespace capture
