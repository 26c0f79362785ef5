// The three families of device firmware.
#pragma once

#include "hid/DeviceReader.h"

// How a standard or Zh reader learns which model it serves: it sends a challenge, and the code of the answer names the
// model.
class CModelIdentification {
 public:
  explicit CModelIdentification(MouseType preset) : model_(preset) {}

  MouseType Model() const { return model_; }
  // Sends the challenge, unless the reader is idle or updates its firmware.
  void Request(CDeviceReader& reader) noexcept;
  // Accepts an awaited answer that names a model from `first` to `last`.
  void OnReply(CDeviceReader& reader, int index, const CHidData& reply, MouseType first, MouseType last) noexcept;

 private:
  Shared<MouseType> model_;
  Shared<bool> awaited_{false};
};

// In every family the operations of a firmware update do nothing yet: no update can be started, so no device has reason
// to send these replies, and one that sends them all the same is ignored.

// Models 2 to 6: Wren, Finch, Robin, Heron, Egret.
class CVoxHidDeviceReader : public CDeviceReader {
 public:
  explicit CVoxHidDeviceReader(MouseType preset) : identification_(preset) {}
  ~CVoxHidDeviceReader() override { ShutDown(); }

  MouseType GetMouseType() const override { return identification_.Model(); }
  void StartIdentify() override { identification_.Request(*this); }
  void OnIdentifyReply(int index, const CHidData& reply) override {
    identification_.OnReply(*this, index, reply, MouseType_Wren, MouseType_Egret);
  }
  void OtaNextImage() override {}
  void OnOtaPrepareReply(const CHidData&) override {}
  void OnOtaOpenReply(const CHidData&) override {}
  void OnOtaDataReply(const CHidData&) override {}
  void OnOtaEndReply(const CHidData&) override {}
  void OnOtaCompleteReply(const CHidData&) override {}

 private:
  CModelIdentification identification_;
};

// Models 7 and 8: Heron Plus, Swift.
class CZhHidDeviceReader : public CDeviceReader {
 public:
  explicit CZhHidDeviceReader(MouseType preset) : identification_(preset) {}
  ~CZhHidDeviceReader() override { ShutDown(); }

  MouseType GetMouseType() const override { return identification_.Model(); }
  void StartIdentify() override { identification_.Request(*this); }
  void OnIdentifyReply(int index, const CHidData& reply) override {
    identification_.OnReply(*this, index, reply, MouseType_HeronPlus, MouseType_Swift);
  }
  void OtaNextImage() override {}
  void OnOtaPrepareReply(const CHidData&) override {}
  void OnOtaOpenReply(const CHidData&) override {}
  void OnOtaDataReply(const CHidData&) override {}
  void OnOtaEndReply(const CHidData&) override {}
  void OnOtaCompleteReply(const CHidData&) override {}

 private:
  CModelIdentification identification_;
};

// Model 1: Tern (the Kite counts as one). Needs no identification.
class CHidDeviceReader_Tern : public CDeviceReader {
 public:
  ~CHidDeviceReader_Tern() override { ShutDown(); }

  MouseType GetMouseType() const override { return MouseType_Tern; }
  void StartIdentify() override {}
  void OnIdentifyReply(int, const CHidData&) override {}
  void OtaNextImage() override {}
  void OnOtaPrepareReply(const CHidData&) override {}
  void OnOtaOpenReply(const CHidData&) override {}
  void OnOtaDataReply(const CHidData&) override {}
  void OnOtaEndReply(const CHidData&) override {}
  void OnOtaCompleteReply(const CHidData&) override {}
};
