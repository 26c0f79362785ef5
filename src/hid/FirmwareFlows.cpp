// What each family of firmware is sent in which step of an update. Progress totals are deliberately those of the first
// image in the block flows, also while the second is sent.
#include <algorithm>
#include <array>

#include "hid/ReaderVariants.h"

namespace {

constexpr std::size_t kZhBlock = 20;  // index, data, checksum
constexpr int kTernOpenBytes = 10;

std::uint8_t Low(int value) { return static_cast<std::uint8_t>(value); }
std::uint8_t High(int value) { return static_cast<std::uint8_t>(value >> 8); }

// CRC-16/MODBUS.
int Checksum(std::span<const std::uint8_t> bytes) {
  unsigned crc = 0xFFFF;
  for (const std::uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xA001U : 0U);
  }
  return static_cast<int>(crc);
}

std::size_t FrameStandard(std::span<const std::uint8_t> bytes, int index,
                          std::span<std::uint8_t, CBlockUpdate::kLongest> payload) {
  payload[0] = Low(index);
  payload[1] = High(index);
  std::copy(bytes.begin(), bytes.end(), payload.begin() + 2);
  return bytes.size() + 2;
}

// Two blocks, each closed by a checksum over itself; a block without data is all FF.
std::size_t FrameZh(std::span<const std::uint8_t> bytes, int index,
                    std::span<std::uint8_t, CBlockUpdate::kLongest> payload) {
  std::fill(payload.begin(), payload.end(), std::uint8_t{0xFF});
  for (auto block = payload.first(kZhBlock); !bytes.empty(); block = payload.last(kZhBlock), ++index) {
    const auto part = bytes.first(std::min<std::size_t>(bytes.size(), CBlockUpdate::kBlock));
    bytes = bytes.subspan(part.size());
    block[0] = Low(index);
    block[1] = High(index);
    std::copy(part.begin(), part.end(), block.begin() + 2);
    const int checksum = Checksum(block.first(kZhBlock - 2));
    block[kZhBlock - 2] = Low(checksum);
    block[kZhBlock - 1] = High(checksum);
  }
  return payload.size();
}

}  // namespace

constinit const CBlockUpdate kStandardUpdate(16, CBlockUpdate::kBlock, &FrameStandard);
constinit const CBlockUpdate kZhUpdate(32, 2 * CBlockUpdate::kBlock, &FrameZh);

// ---- Blocks: the standard and the Zh reader ----

void CBlockUpdate::NextImage(CDeviceReader& reader, CDeviceReader::OtaStep from) const noexcept {
  const auto step = reader.SelectOtaImage(from);
  if (!step) return;
  if (reader.readThread.IsSet()) {
    const auto source = reader.CurrentOtaImage();
    reader.SendOta(*step, OtaStage_Open, OtaOpen, source.Bytes(0, open_));
  } else {
    reader.AwaitOtaAnswer(*step, OtaStage_Open);
  }
}

void CBlockUpdate::SendOtaBlock(CDeviceReader& reader, CDeviceReader::OtaStep step, int index) const noexcept {
  const auto source = reader.CurrentOtaImage();
  const int remaining = source.size - kBlock * index;
  if (remaining < 1) return reader.SendOta(step, OtaStage_Complete, OtaComplete);
  const int count = std::min(remaining, perMessage_);
  const auto bytes = source.Bytes(std::int64_t{kBlock} * index, count);
  // An image that is shorter than its size (that of an earlier file): nothing is sent, and the step times out.
  if (static_cast<int>(bytes.size()) < count) return reader.AwaitOtaAnswer(step, OtaStage_Data);
  std::array<std::uint8_t, kLongest> payload;
  const std::size_t length = framing_(bytes, index, payload);
  reader.SendOta(step, OtaStage_Data, OtaData, std::span(payload).first(length));
}

void CBlockUpdate::OnOpenReply(CDeviceReader& reader, const CHidData& reply) const noexcept {
  const auto step = reader.TakeOtaAnswer(reply, 1);
  if (!step) return;
  if (reply.data[0] != 0) return reader.AbortOta(*step, FwUpdate_OpenRefused);
  reader.ReportOtaProgress(*step, 0, reader.image1Size);
  reader.SignalOtaAnswered();
  SendOtaBlock(reader, *step, 0);
}

void CBlockUpdate::OnDataReply(CDeviceReader& reader, const CHidData& reply) const noexcept {
  const auto step = reader.TakeOtaAnswer(reply, 3);
  if (!step) return;
  if (reply.data[0] != 0) return reader.AbortOta(*step, FwUpdate_DataRefused);
  const int index = reply.data[1] + reply.data[2] * 256;
  if (index == 0) {
    reader.ReportOtaProgress(*step, 100, 100);
    return Finish(reader, *step);
  }
  reader.ReportOtaProgress(*step, index * kBlock, reader.image1Size);
  reader.SignalOtaAnswered();
  SendOtaBlock(reader, *step, index);
}

void CBlockUpdate::OnEndReply(CDeviceReader& reader, const CHidData& reply) noexcept {
  if (const auto step = reader.TakeOtaAnswer(reply, 1)) reader.OtaNextImage(*step);
}

void CBlockUpdate::OnCompleteReply(CDeviceReader& reader, const CHidData& reply) noexcept {
  const auto step = reader.TakeOtaAnswer(reply, 1);
  if (!step) return;
  if (reply.data[0] != 0) return reader.AbortOta(*step, FwUpdate_ImageFinished);
  reader.ReportOtaProgress(*step, 100, 100);
  Finish(reader, *step);
}

void CBlockUpdate::Finish(CDeviceReader& reader, CDeviceReader::OtaStep step) noexcept {
  reader.ReportOta(step, FwUpdate_ImageFinished);
  // Deliberately framed for the reader's own channel, whatever the image's.
  reader.SendOtaLast(step, OtaComplete);
  reader.SignalOtaAnswered();
  reader.OtaNextImage(step);
}

// ---- Bytes by offset: the Tern ----

std::optional<CDeviceReader::OtaStep> CHidDeviceReader_Tern::TakeAnswer(const CHidData& reply, int length) noexcept {
  return reply.channel == otaTarget ? TakeOtaAnswer(reply, length) : std::nullopt;
}

void CHidDeviceReader_Tern::OtaNextImage(OtaStep from) {
  if (const auto step = SelectOtaImage(from)) SendOta(*step, OtaStage_Prepare, OtaPrepare);
}

void CHidDeviceReader_Tern::OnOtaPrepareReply(const CHidData& reply) {
  const auto step = TakeAnswer(reply, 1);
  if (!step) return;
  if (reply.data[0] != 0) return AbortOta(*step, FwUpdate_PrepareRefused);
  SignalOtaAnswered();
  const OtaSource source = CurrentOtaImage();
  SendOta(*step, OtaStage_Open, OtaOpen, source.Bytes(0, kTernOpenBytes));
}

void CHidDeviceReader_Tern::OnOtaOpenReply(const CHidData& reply) { OnRequest(reply, FwUpdate_OpenRefused); }

void CHidDeviceReader_Tern::OnOtaDataReply(const CHidData& reply) { OnRequest(reply, FwUpdate_DataRefused); }

void CHidDeviceReader_Tern::OnRequest(const CHidData& reply, FwUpdateState refused) noexcept {
  const auto step = TakeAnswer(reply, 6);
  if (!step) return;
  if (reply.data[5] != 0) return AbortOta(*step, refused);
  std::uint32_t offset = 0;
  for (int i = 0; i < 4; ++i) offset = offset << 8 | reply.data[i];
  SignalOtaAnswered();
  SendOtaChunk(*step, static_cast<std::int32_t>(offset), reply.data[4]);
}

void CHidDeviceReader_Tern::SendOtaChunk(OtaStep step, std::int64_t offset, int count) noexcept {
  // The image itself is taken only when nothing is told any more: the receiver may be ended with the thread.
  const int size = CurrentOtaImage().size;
  // Sizes and offsets may be any: what the client is told wraps.
  const auto wrap = [](std::int64_t value) {
    return static_cast<int>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(value)));
  };
  const bool first = otaTarget != DataChannel_Receiver;
  const std::int64_t before = first ? 0 : static_cast<int>(image1Size);
  const int total = wrap(std::int64_t{image1Size} + image2Size);
  const std::int64_t wanted = std::min<std::int64_t>(size - offset, count);
  if (wanted == 0) {
    ReportOtaProgress(step, first ? size : total, total);
    return SendOta(step, OtaStage_Complete, OtaComplete);
  }
  ReportOtaProgress(step, wrap(before + offset), total);
  // A request that leads out of the image gets nothing, and the step times out.
  const OtaSource source = CurrentOtaImage();
  const auto bytes = source.Bytes(offset, wanted);
  if (static_cast<std::int64_t>(bytes.size()) != wanted) return AwaitOtaAnswer(step, OtaStage_Data);
  SendOta(step, OtaStage_Data, OtaData, bytes);
}

void CHidDeviceReader_Tern::OnOtaEndReply(const CHidData& reply) {
  if (const auto step = TakeAnswer(reply, 1)) OtaNextImage(*step);
}

void CHidDeviceReader_Tern::OnOtaCompleteReply(const CHidData& reply) {
  const auto step = TakeAnswer(reply, 1);
  if (!step) return;
  if (reply.data[0] != 0) return AbortOta(*step, FwUpdate_ImageFinished);
  ReportOta(*step, FwUpdate_ImageFinished);
  SignalOtaAnswered();
  OtaNextImage(*step);
}
