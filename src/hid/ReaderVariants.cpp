#include "hid/ReaderVariants.h"

#include <cstdlib>

namespace {

constexpr int kChallengeBytes = 32;

}  // namespace

void CModelIdentification::Request(CDeviceReader& reader) noexcept {
  if (!reader.readThread.IsSet() || reader.otaStage != 0) return;
  // Not a secret: the answer's payload is not checked, its code alone counts.
  std::array<std::uint8_t, kChallengeBytes> challenge;
  std::srand(static_cast<unsigned>(os::_time64(nullptr)));
  for (std::uint8_t& code : challenge) code = static_cast<std::uint8_t>(std::rand() % 256);
  awaited_ = true;
  // Deliberately with the prefix of channel 2, whatever the reader's link.
  reader.SendFrame(Identify, challenge.data(), kChallengeBytes, DataChannel_Usb,
                   CDeadline(CDeviceReader::kWritePatience));
}

void CModelIdentification::OnReply(CDeviceReader& reader, int index, const CHidData& reply,
                                   FirmwareFamily family) noexcept {
  const auto named = static_cast<MouseType>(index);
  if (SheetOf(named).firmware != family || !reply.Has(kChallengeBytes) || !awaited_) return;
  awaited_ = false;
  model_ = named;
  if (reader.IsReady()) reader.SendCommand(IdentifyAck, reader.channel);
}
