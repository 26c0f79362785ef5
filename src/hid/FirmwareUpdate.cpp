// The frame of every firmware update: files, the plan of images, the wait thread with its time-outs, results. What is
// sent in which step is the flow of each variant.
#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <new>
#include <utility>

#include "VoxDevice/VoxCommon.h"
#include "hid/DeviceReader.h"

namespace {

constexpr DWORD kWaitPeriod = 100;   // ms
constexpr int kPeriodsOfAStep = 31;  // without an answer

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

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

void CDeviceReader::StartOta(int type, const std::string& firstPath, const std::string& secondPath,
                             OtaCallback callback, void* context) noexcept {
  otaDevice = deviceNumber;
  otaContext = context;
  otaCallback = callback;
  LoadOtaImages(type, firstPath, secondPath);
  StartOtaWaiter();
  OtaNextImage();
}

void CDeviceReader::LoadOtaImages(int type, const std::string& firstPath, const std::string& secondPath) noexcept {
  // Read before the lock is taken. Deliberately a size stays as it was where no file is loaded.
  OtaImage first, second;
  int firstSize = image1Size;
  int secondSize = image2Size;
  if (type == FwUpdate_First || type == FwUpdate_Both) LoadImageFile(firstPath, first, firstSize);
  if (type == FwUpdate_Second || type == FwUpdate_Both) LoadImageFile(secondPath, second, secondSize);
  const CAutoLock lock(otaLock_);
  otaPlan = type;
  image1 = std::move(first);
  image2 = std::move(second);
  image1Size = firstSize;
  image2Size = secondSize;
}

bool CDeviceReader::LoadImageFile(const std::string& path, OtaImage& image, int& size) noexcept {
  if (path.empty()) return false;
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rb"));
  if (!file || std::fseek(file.get(), 0, SEEK_END) != 0) return false;
  const long length = std::ftell(file.get());
  if (length <= 0 || length > INT_MAX || std::fseek(file.get(), 0, SEEK_SET) != 0) return false;
  try {
    auto bytes = std::make_shared<std::vector<std::uint8_t>>(static_cast<std::size_t>(length));
    bytes->resize(std::fread(bytes->data(), 1, bytes->size(), file.get()));
    size = static_cast<int>(bytes->size());
    image = std::move(bytes);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

std::optional<CDeviceReader::OtaStep> CDeviceReader::SelectOtaImage() noexcept {
  const CAutoLock lock(otaLock_);
  NextOtaStep();
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
  if (otaTarget == DataChannel_Unknown) return std::nullopt;
  otaActive = true;
  return otaStep_;
}

std::optional<CDeviceReader::OtaStep> CDeviceReader::TakeOtaAnswer(const CHidData& reply, int length) noexcept {
  if (!reply.Has(length)) return std::nullopt;
  const CAutoLock lock(otaLock_);
  if (!otaActive) return std::nullopt;
  NextOtaStep();
  return otaStep_;
}

// With otaLock_ held.
void CDeviceReader::NextOtaStep() noexcept {
  otaStep_ = otaStep_ + 1;
  otaAwaits_ = false;
}

void CDeviceReader::LeaveOtaImage(OtaStep step) noexcept {
  if (otaStep_ == step) OtaNextImage();
}

bool CDeviceReader::EnterOtaStage(OtaStep step, OtaStage stage) noexcept {
  const CAutoLock lock(otaLock_);
  if (otaStep_ != step) return false;
  otaStage = stage;
  otaAwaits_ = true;
  return true;
}

void CDeviceReader::EndOta() noexcept {
  os::SetEvent(otaStopEvent);
  {
    const CAutoLock lock(otaLock_);
    image1.reset();
    image2.reset();
  }
  ReportOta(FwUpdate_Over, DataChannel_Unknown);
}

void CDeviceReader::ReportOta(int state, DataChannel target) noexcept {
  if (const OtaCallback callback = otaCallback)
    callback(otaDevice, target, static_cast<FwUpdateState>(state), otaContext);
}

void CDeviceReader::SendOta(OtaStep step, OtaStage stage, std::uint8_t command,
                            std::span<const std::uint8_t> payload) noexcept {
  if (!EnterOtaStage(step, stage)) return;
  SendFrame(command, payload.empty() ? nullptr : payload.data(), static_cast<int>(payload.size()), otaTarget);
  os::SetEvent(otaSentEvent);
}

void CDeviceReader::AwaitOtaAnswer(OtaStep step, OtaStage stage) noexcept {
  if (EnterOtaStage(step, stage)) os::SetEvent(otaSentEvent);
}

void CDeviceReader::AbortOta(OtaStep step, FwUpdateState state) noexcept {
  ReportOta(state);
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

void CDeviceReader::StartOtaWaiter() noexcept {
  if (!otaThreads_.IsRunning()) {
    // What an update before has left signalled must not end this one.
    for (HANDLE event : {otaSentEvent, otaAnsweredEvent, otaStopEvent}) os::WaitForSingleObject(event, 0);
  }
  otaThread = otaThreads_.Start([this](CWorkerThread& thread) {
    OtaWaitLoop(thread);
    return 0U;
  });
}

void CDeviceReader::OtaWaitLoop(CWorkerThread& thread) noexcept {
  const HANDLE events[] = {otaSentEvent, otaAnsweredEvent, otaStopEvent};
  bool armed = false;
  int periods = 0;
  OtaStep step = 0;
  for (;;) {
    DWORD result = WAIT_FAILED;
    if (!thread.Park([&] { result = os::WaitForMultipleObjects(3, events, FALSE, kWaitPeriod); })) return;
    switch (result) {
      case WAIT_OBJECT_0:
      case WAIT_OBJECT_0 + 1: {
        // Not from the event alone: when an answer and the next request have both come meanwhile, the wait names the
        // request first.
        const CAutoLock lock(otaLock_);
        armed = otaAwaits_;
        step = otaStep_;
        periods = 0;
        break;
      }
      case WAIT_OBJECT_0 + 2:
        return;
      case WAIT_TIMEOUT:
        if (armed && ++periods == kPeriodsOfAStep) OnOtaTimeOut(step);
        break;
      default:
        return;  // an event is gone: so is the reader
    }
  }
}

void CDeviceReader::OnOtaTimeOut(OtaStep step) noexcept {
  int stage = OtaStage_Idle;
  DataChannel target = DataChannel_Unknown;
  {
    const CAutoLock lock(otaLock_);
    if (otaStep_ != step) return;  // an answer has come after all
    NextOtaStep();
    otaActive = false;  // and none counts any more
    stage = otaStage;
    target = otaTarget;
  }
  PrintNoAnswer(stage);
  ReportOta(stage, target);
  OtaNextImage();
}
