// The frame of every firmware update: files, the plan of images, the wait thread with its time-outs, results. What is
// sent in which step is the flow of each variant.
#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <list>
#include <utility>

#include "VoxDevice/VoxCommon.h"
#include "hid/DeviceReader.h"
#include "support/Memory.h"
#include "support/Probe.h"
#include "support/Text.h"

namespace {

constexpr DWORD kWaitPeriod = 100;       // ms
constexpr DWORD kAnswerPatience = 3100;  // ms

// What a step without an answer prints: text of the GBK code page, without a line end.
constexpr const char* kFailure = "\xCA\xA7\xB0\xDC\xD4\xAD\xD2\xF2: \xB7\xA2\xCB\xCD";         // 失败原因: 发送
constexpr const char* kNoAnswer = "\xCF\xFB\xCF\xA2\xCF\xEC\xD3\xA6\xB3\xAC\xCA\xB1\xA3\xA1";  // 消息响应超时！
constexpr const char* kPrepare = "\xD7\xBC\xB1\xB8";                                           // 准备
constexpr const char* kOpen = "\xB4\xF2\xBF\xAA";                                              // 打开
constexpr const char* kData = "\xB8\xFC\xD0\xC2\xCA\xFD\xBE\xDD";                              // 更新数据
constexpr const char* kComplete = "\xCD\xEA\xB3\xC9";                                          // 完成

void PrintNoAnswer(int stage) {
  const auto print = [](const char* step) { std::printf("%s%s%s", kFailure, step, kNoAnswer); };
  switch (stage) {
    case OtaStage_Prepare:
      print(kPrepare);
      break;
    case OtaStage_Open:
      // Deliberately both texts.
      print(kOpen);
      print(kData);
      break;
    case OtaStage_Data:
      print(kData);
      break;
    case OtaStage_Complete:
      print(kComplete);
      break;
    default:
      break;
  }
  std::fflush(stdout);
}

// path: UTF-8; where there is no such file on Windows, as well in the process's code page.
std::FILE* OpenToRead(const std::string& path) {
#ifdef _WIN32
  if (std::FILE* file = _wfopen(Wide(path).c_str(), L"rb")) return file;
#endif
  return std::fopen(path.c_str(), "rb");
}

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

void CDeviceReader::StartOta(int device, int type, const std::string& firstPath, const std::string& secondPath,
                             OtaCallback callback, const std::shared_ptr<void>& context) noexcept {
  // Read before the update that runs is replaced, in one go. Deliberately a size stays as it was where no file is
  // loaded.
  OtaImage first, second;
  int firstSize = -1;
  int secondSize = -1;
  std::list<std::shared_ptr<void>> kept;
  const bool loaded = HadMemory([&] {
    kept.push_back(context);
    if (type == FwUpdate_First || type == FwUpdate_Both) LoadImageFile(firstPath, first, firstSize);
    if (type == FwUpdate_Second || type == FwUpdate_Both) LoadImageFile(secondPath, second, secondSize);
  });
  OtaStep step = 0;
  {
    const CAutoLock lock(otaLock_);
    if (hasStopped_ || deviceNumber == -1) return Probe<"update: a start on a device that has gone">();
    NextOtaStep();
    step = otaStep_;
    otaFirstStep_ = step;
    otaRuns_ = true;
    otaActive = false;
    otaPlan = type;
    image1 = std::move(first);
    image2 = std::move(second);
    if (firstSize >= 0) image1Size = firstSize;
    if (secondSize >= 0) image2Size = secondSize;
    otaDevice = device;
    otaContext = context.get();
    otaCallback = callback;
    // Kept here, by no thread that tells a result: that may be ended with its receiver.
    if (std::find(otaContexts_.begin(), otaContexts_.end(), context) == otaContexts_.end()) {
      otaContexts_.splice(otaContexts_.end(), kept);
    }
    // One wait thread at a time: that of the update before stays, unless it is about to leave.
    if (!otaWaits_) StartOtaWaiter();
    // It is over at once when nobody would see a time-out; and before a device gets an image that is not whole.
    if (!otaWaits_ || !loaded) otaPlan = 0;
  }
  OtaNextImage(step);
}

void CDeviceReader::StartOtaWaiter() noexcept {
  std::shared_ptr<CWorker> waiter;
  CWorker::Body body;
  const bool had = HadMemory([&] {
    waiter = std::make_shared<CWorker>(otaStopEvent);
    body = [self = shared_from_this(), its = waiter.get()] {
      self->OtaWaitLoop(*its);
      return 0U;
    };
  });
  if (!had) return;
  otaWaiter_ = waiter;
  otaWaits_ = waiter->Start(std::move(body));
}

bool CDeviceReader::LoadImageFile(const std::string& path, OtaImage& image, int& size) {
  if (path.empty()) return false;
  const std::unique_ptr<std::FILE, CloseFile> file(OpenToRead(path));
  if (!file || std::fseek(file.get(), 0, SEEK_END) != 0) return false;
  const long length = std::ftell(file.get());
  if (length <= 0 || length > INT_MAX || std::fseek(file.get(), 0, SEEK_SET) != 0) return false;
  auto bytes = std::make_shared<std::vector<std::uint8_t>>(static_cast<std::size_t>(length));
  bytes->resize(std::fread(bytes->data(), 1, bytes->size(), file.get()));
  size = static_cast<int>(bytes->size());
  image = std::move(bytes);
  return true;
}

std::optional<CDeviceReader::OtaStep> CDeviceReader::SelectOtaImage(OtaStep step) noexcept {
  {
    const CAutoLock lock(otaLock_);
    if (hasStopped_ || otaStep_ != step) {
      Probe<"update: an image of a replaced update is not begun">();
      return std::nullopt;
    }
    NextOtaStep();
    step = otaStep_;
    otaActive = false;
    otaStage = OtaStage_Idle;
    switch (otaPlan.exchange(0)) {
      case 0:
        otaTarget = DataChannel_Unknown;
        break;
      case FwUpdate_First:
        otaTarget = channel;
        break;
      case FwUpdate_Second:
        otaTarget = DataChannel_Receiver;
        break;
      case FwUpdate_Both:
        otaTarget = channel;
        // Over Bluetooth LE there is no receiver to update.
        if (channel != DataChannel_BluetoothLE) otaPlan = FwUpdate_Second;
        break;
      default:
        break;  // the target stays: none, after an update that has ended
    }
    otaActive = otaTarget != DataChannel_Unknown;
    if (otaActive) return step;
    otaRuns_ = false;
    image1.reset();
    image2.reset();
  }
  os::SetEvent(otaStopEvent);
  ReportOta(step, FwUpdate_Over);
  return std::nullopt;
}

std::optional<CDeviceReader::OtaStep> CDeviceReader::TakeOtaAnswer(const CHidData& reply, int length) noexcept {
  if (!reply.Has(length)) return std::nullopt;
  const CAutoLock lock(otaLock_);
  if (!otaActive) return std::nullopt;
  NextOtaStep();
  return otaStep_;
}

void CDeviceReader::NextOtaStep() noexcept {
  otaStep_ = otaStep_ + 1;
  otaAwaits_ = false;
}

bool CDeviceReader::IsOtaStep(OtaStep step) noexcept {
  const CAutoLock lock(otaLock_);
  return otaStep_ == step;
}

bool CDeviceReader::EnterOtaStage(OtaStep step, OtaStage stage) noexcept {
  const CAutoLock lock(otaLock_);
  if (otaStep_ != step) return false;
  otaStage = stage;
  return true;
}

void CDeviceReader::ReportOta(OtaStep step, int state) noexcept {
  OtaCallback callback = nullptr;
  int device = -1;
  DataChannel target = DataChannel_Unknown;
  void* context = nullptr;
  {
    const CAutoLock lock(otaLock_);
    if (!IsOfThisUpdate(step)) return Probe<"update: a result of a replaced update is dropped">();
    callback = otaCallback;
    device = otaDevice;
    target = otaTarget;
    context = otaContext;
  }
  if (callback) callback(device, target, static_cast<FwUpdateState>(state), context);
}

void CDeviceReader::ReportOtaProgress(OtaStep step, int done, int total) noexcept {
  {
    const CAutoLock lock(otaLock_);
    if (!IsOfThisUpdate(step)) return;
  }
  VoxMessage::OtaProgress(done, total);
}

void CDeviceReader::SendOta(OtaStep step, OtaStage stage, std::uint8_t command,
                            std::span<const std::uint8_t> payload) noexcept {
  if (!EnterOtaStage(step, stage)) return;
  Send(command, payload.empty() ? nullptr : payload.data(), static_cast<int>(payload.size()), otaTarget, step, true,
       CDeadline(kWritePatience));
}

void CDeviceReader::SendOtaLast(OtaStep step, std::uint8_t command) noexcept {
  Send(command, nullptr, 0, channel, step, false, CDeadline(kWritePatience));
}

void CDeviceReader::AwaitOtaAnswer(OtaStep step, OtaStage stage) noexcept {
  if (EnterOtaStage(step, stage)) OnOtaWritten(step);
}

// The time-out of a step begins when its request has been written, however long that has taken.
void CDeviceReader::OnOtaWritten(OtaStep step) noexcept {
  {
    const CAutoLock lock(otaLock_);
    if (otaStep_ != step) return;
    otaAwaits_ = true;
    otaAnswerBy_ = CDeadline(kAnswerPatience);
  }
  os::SetEvent(otaSentEvent);
}

void CDeviceReader::AbortOta(OtaStep step, FwUpdateState state) noexcept {
  ReportOta(step, state);
  SendOta(step, OtaStage_Abort, OtaAbort);
}

CDeviceReader::OtaSource CDeviceReader::CurrentOtaImage() noexcept {
  const DataChannel target = otaTarget;
  const bool first = target == DataChannel_BluetoothLE || target == DataChannel_Usb;
  const CAutoLock lock(otaLock_);
  return first ? OtaSource{image1, image1Size} : OtaSource{image2, image2Size};
}

std::span<const std::uint8_t> CDeviceReader::OtaSource::Bytes(std::int64_t offset, std::int64_t count) const noexcept {
  const std::int64_t present = image ? static_cast<std::int64_t>(image->size()) : 0;
  if (offset < 0 || offset >= present || count <= 0) return {};
  return {image->data() + offset, static_cast<std::size_t>(std::min(count, present - offset))};
}

void CDeviceReader::OtaWaitLoop(const CWorker& thread) noexcept {
  const HANDLE events[] = {otaSentEvent, otaAnsweredEvent, otaStopEvent};
  bool armed = false;
  OtaStep step = 0;
  CDeadline answerBy(0);
  for (;;) {
    const DWORD result = os::WaitForMultipleObjects(3, events, FALSE, armed ? answerBy.Left(kWaitPeriod) : kWaitPeriod);
    if (thread.IsAsked() || result == WAIT_FAILED) return;
    if (result == WAIT_TIMEOUT) {
      if (!armed || !answerBy.HasPassed()) continue;
      armed = false;
      OnOtaTimeOut(step);
    }
    // What has happened is read from the fields, not from the event: several may have come meanwhile, and an event may
    // be left from an update before.
    const CAutoLock lock(otaLock_);
    if (!otaRuns_) {
      otaWaits_ = false;
      return;
    }
    if (result == WAIT_TIMEOUT || (armed && step == otaStep_)) continue;
    armed = otaAwaits_;
    step = otaStep_;
    answerBy = otaAnswerBy_;
  }
}

void CDeviceReader::OnOtaTimeOut(OtaStep step) noexcept {
  int stage = OtaStage_Idle;
  {
    const CAutoLock lock(otaLock_);
    if (otaStep_ != step) return Probe<"update: an answer comes just before its time-out">();
    NextOtaStep();
    step = otaStep_;
    otaActive = false;  // and none counts any more
    stage = otaStage;
  }
  PrintNoAnswer(stage);
  ReportOta(step, stage);
  OtaNextImage(step);
}
