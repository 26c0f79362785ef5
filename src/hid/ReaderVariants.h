// The three families of device firmware.
#pragma once

#include "hid/DeviceReader.h"
#include "models/Models.h"

// How a standard or Zh reader learns which model it serves: it sends a challenge, and the code of the answer names the
// model.
class CModelIdentification {
 public:
  explicit CModelIdentification(MouseType preset) : model_(preset) {}

  MouseType Model() const { return model_; }
  // Sends the challenge, unless the reader is idle or updates its firmware.
  void Request(CDeviceReader& reader) noexcept;
  // Accepts an awaited answer that names a model of the family.
  void OnReply(CDeviceReader& reader, int index, const CHidData& reply, FirmwareFamily family) noexcept;

 private:
  Shared<MouseType> model_;
  Shared<bool> awaited_{false};
};

// The firmware update of a standard or Zh reader: the device names the 16-byte block that it wants next, and index 0
// when it has everything. The two differ in how much of the image opens the transfer and how blocks are framed.
class CBlockUpdate {
 public:
  static constexpr int kBlock = 16;            // bytes of an image
  static constexpr std::size_t kLongest = 40;  // payload of an OtaData
  // Fills the payload of the OtaData that answers a request for block `index` with the image's bytes from there on.
  // Returns its length.
  using Framing = std::size_t (*)(std::span<const std::uint8_t> bytes, int index,
                                  std::span<std::uint8_t, kLongest> payload);

  // open: bytes of the image that OtaOpen carries. perMessage: bytes of the image that an OtaData carries at most.
  constexpr CBlockUpdate(int open, int perMessage, Framing framing)
      : open_(open), perMessage_(perMessage), framing_(framing) {}

  void NextImage(CDeviceReader& reader, CDeviceReader::OtaStep from) const noexcept;
  void OnOpenReply(CDeviceReader& reader, const CHidData& reply) const noexcept;
  void OnDataReply(CDeviceReader& reader, const CHidData& reply) const noexcept;
  static void OnEndReply(CDeviceReader& reader, const CHidData& reply) noexcept;
  static void OnCompleteReply(CDeviceReader& reader, const CHidData& reply) noexcept;

 private:
  void SendOtaBlock(CDeviceReader& reader, CDeviceReader::OtaStep step, int index) const noexcept;
  static void Finish(CDeviceReader& reader, CDeviceReader::OtaStep step) noexcept;

  const int open_;
  const int perMessage_;
  const Framing framing_;
};

extern const CBlockUpdate kStandardUpdate;
extern const CBlockUpdate kZhUpdate;

// The standard family.
class CVoxHidDeviceReader : public CDeviceReader {
 public:
  explicit CVoxHidDeviceReader(MouseType preset) : identification_(preset) {}

  MouseType GetMouseType() const override { return identification_.Model(); }
  void StartIdentify() override { identification_.Request(*this); }
  void OnIdentifyReply(int index, const CHidData& reply) override {
    identification_.OnReply(*this, index, reply, FirmwareFamily::Standard);
  }
  void OtaNextImage(OtaStep step) override { kStandardUpdate.NextImage(*this, step); }
  void OnOtaPrepareReply(const CHidData&) override {}
  void OnOtaOpenReply(const CHidData& reply) override { kStandardUpdate.OnOpenReply(*this, reply); }
  void OnOtaDataReply(const CHidData& reply) override { kStandardUpdate.OnDataReply(*this, reply); }
  void OnOtaEndReply(const CHidData& reply) override { CBlockUpdate::OnEndReply(*this, reply); }
  void OnOtaCompleteReply(const CHidData& reply) override { CBlockUpdate::OnCompleteReply(*this, reply); }

 private:
  CModelIdentification identification_;
};

// The Zh family.
class CZhHidDeviceReader : public CDeviceReader {
 public:
  explicit CZhHidDeviceReader(MouseType preset) : identification_(preset) {}

  MouseType GetMouseType() const override { return identification_.Model(); }
  void StartIdentify() override { identification_.Request(*this); }
  void OnIdentifyReply(int index, const CHidData& reply) override {
    identification_.OnReply(*this, index, reply, FirmwareFamily::Zh);
  }
  void OtaNextImage(OtaStep step) override { kZhUpdate.NextImage(*this, step); }
  void OnOtaPrepareReply(const CHidData&) override {}
  void OnOtaOpenReply(const CHidData& reply) override { kZhUpdate.OnOpenReply(*this, reply); }
  void OnOtaDataReply(const CHidData& reply) override { kZhUpdate.OnDataReply(*this, reply); }
  void OnOtaEndReply(const CHidData& reply) override { CBlockUpdate::OnEndReply(*this, reply); }
  void OnOtaCompleteReply(const CHidData& reply) override { CBlockUpdate::OnCompleteReply(*this, reply); }

 private:
  CModelIdentification identification_;
};

// The Tern's family. Needs no identification.
class CHidDeviceReader_Tern : public CDeviceReader {
 public:
  explicit CHidDeviceReader_Tern(MouseType model = MouseType_Tern) : model_(model) {}

  MouseType GetMouseType() const override { return model_; }
  void StartIdentify() override {}
  void OnIdentifyReply(int, const CHidData&) override {}
  // The firmware update of a Tern: the device asks for any bytes of the image by offset and count, and only answers
  // from the channel that the image is sent to count.
  void OtaNextImage(OtaStep from) override;
  void OnOtaPrepareReply(const CHidData& reply) override;
  void OnOtaOpenReply(const CHidData& reply) override;
  void OnOtaDataReply(const CHidData& reply) override;
  void OnOtaEndReply(const CHidData& reply) override;
  void OnOtaCompleteReply(const CHidData& reply) override;

 private:
  std::optional<OtaStep> TakeAnswer(const CHidData& reply, int length) noexcept;
  // An answer that asks for the next bytes, or refuses with `refused`.
  void OnRequest(const CHidData& reply, FwUpdateState refused) noexcept;
  void SendOtaChunk(OtaStep step, std::int64_t offset, int count) noexcept;

  const MouseType model_;
};
