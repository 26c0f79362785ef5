#include "Client.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "English.h"
#include "sim/Text.h"

namespace {

std::string modelName(MouseType model) { return sim::utf8(CAudioHidCenter::GetHidName(model)); }

const char* linkName(DataChannel link) {
  switch (link) {
    case DataChannel_BluetoothLE:
      return "Bluetooth LE";
    case DataChannel_Usb:
      return "USB";
    case DataChannel_Receiver:
      return "receiver";
    default:
      return "unknown link";
  }
}

std::string hexOf(const unsigned char* bytes, int count) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (int i = 0; i < count; ++i) {
    if (i > 0) text += ' ';
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

std::string hash(int device) { return "#" + std::to_string(device) + "  "; }

}  // namespace

std::string percent(int battery) { return battery < 0 ? "?" : std::to_string(battery) + " %"; }

Client::Client(std::function<double()> seconds)
    : seconds_(std::move(seconds)), hub_(std::make_unique<CAudioHidCenter>()), buttons_(4, ButtonUp) {
  VoxMessage::SetSink(this);
  registerCallbacks();
}

Client::~Client() {
  stop();
  hub_.reset();
  VoxMessage::SetSink(nullptr);
}

void Client::start() {
  const CAudioHidCenter::AudioCallback callback = [](const unsigned char* data, int byteCount, void* self) {
    static_cast<Client*>(self)->onAudio(data, byteCount);
  };
  hub_->OpenDevice(reinterpret_cast<void*>(callback), this);
}

void Client::stop() {
  hub_->CloseDevice();
  hub_->Release();
}

void Client::registerCallbacks() {
  const CAudioHidCenter::MouseConnectCallback mouseConnect = [](int device, int state, void* self) {
    static_cast<Client*>(self)->add("mouse-connect", {{"device", device}, {"state", state}},
                                    hash(device) + "connection report, state " + std::to_string(state));
  };
  hub_->SetCallback_MouseConnect(reinterpret_cast<void*>(mouseConnect), this);

  const CAudioHidCenter::VoiceOperateCallback voice = [](int device, int operation, void* self) {
    const std::string what = operation == 3 ? "open" : operation == 2 ? "refused" : "closed";
    static_cast<Client*>(self)->add("voice", {{"device", device}, {"operation", operation}, {"channel", what}},
                                    hash(device) + "voice channel " + what);
  };
  hub_->SetCallback_VoiceOperate(reinterpret_cast<void*>(voice), this);

  const CAudioHidCenter::DpiSetCallback dpiSet = [](int device, int dpi, bool ok, void* self) {
    auto* client = static_cast<Client*>(self);
    if (ok) client->change(device, [=](DeviceView& view) { view.dpi = dpi; });
    client->add("dpi", {{"device", device}, {"dpi", dpi}, {"ok", ok}},
                hash(device) + "DPI " + std::to_string(dpi) + (ok ? " set" : " refused"));
  };
  hub_->SetCallback_DpiSet(reinterpret_cast<void*>(dpiSet), this);

  const CAudioHidCenter::MouseStateCallback mouseState = [](int device, MouseType model, DataChannel link, int word0,
                                                            int word1, int byte, void* self) {
    static_cast<Client*>(self)->onState(device, model, link, word0, word1, byte);
  };
  hub_->SetCallback_MouseState(reinterpret_cast<void*>(mouseState), this);

  const CAudioHidCenter::DongleStateCallback dongle = [](int device, MouseType, DataChannel, int word, bool flag,
                                                         void* self) {
    static_cast<Client*>(self)->add(
        "dongle-state", {{"device", device}, {"word", word}, {"flag", flag}},
        hash(device) + "receiver state " + std::to_string(word) + (flag ? ", flag set" : ""));
  };
  hub_->SetCallback_DongleState(reinterpret_cast<void*>(dongle), this);

  const CAudioHidCenter::PowerReportCallback power = [](int device, int level, void* self) {
    auto* client = static_cast<Client*>(self);
    client->change(device, [=](DeviceView& view) { view.battery = level; });
    client->add("power", {{"device", device}, {"level", level}}, hash(device) + "battery " + percent(level));
  };
  hub_->SetCallback_PowerReport(reinterpret_cast<void*>(power), this);

  const CAudioHidCenter::DownloadUrlCallback url = [](int device, bool ok, void* self) {
    static_cast<Client*>(self)->add("url", {{"device", device}, {"ok", ok}},
                                    hash(device) + (ok ? "download URL accepted" : "download URL refused"));
  };
  hub_->SetCallback_DownloadUrl(reinterpret_cast<void*>(url), this);

  const CAudioHidCenter::FwOtaResultCallbackFn result = [](int device, DataChannel link, FwUpdateState state,
                                                           void* self) {
    static_cast<Client*>(self)->add("update-result",
                                    {{"device", device},
                                     {"link", static_cast<int>(link)},
                                     {"link_name", state == FwUpdate_Over ? "" : linkName(link)},
                                     {"state", static_cast<int>(state)},
                                     {"result", nameOfUpdateState(state)}},
                                    hash(device) + "firmware update: result " + std::to_string(state) + " for " +
                                        (state == FwUpdate_Over ? "all of it" : linkName(link)));
  };
  hub_->SetCallback_FwOtaResult(reinterpret_cast<void*>(result), this);

  const CAudioHidCenter::SpeechLostCallback lost = [](int device, int missing, int late, void* self) {
    static_cast<Client*>(self)->add("speech-lost", {{"device", device}, {"missing", missing}, {"late", late}},
                                    hash(device) + "speech is lost: reports missing: " + std::to_string(missing) +
                                        ", late: " + std::to_string(late));
  };
  hub_->SetCallback_SpeechLost(reinterpret_cast<void*>(lost), this);
  // Not against stale speech: another client may just be recording the device.
  hub_->SetHardening(VoxHardening_LongQueue | VoxHardening_DeadHandles);
}

std::vector<ClientEvent> Client::takeEvents() {
  const std::lock_guard lock(mutex_);
  return std::exchange(events_, {});
}

std::vector<std::int16_t> Client::takeAudio() {
  const std::lock_guard lock(mutex_);
  return std::exchange(audio_, {});
}

std::vector<DeviceView> Client::devices() {
  const std::lock_guard lock(mutex_);
  return devices_;
}

void Client::pollButtons() {
  const std::pair<const char*, VoxButtonState (CAudioHidCenter::*)()> getters[] = {
      {"left", &CAudioHidCenter::GetButtonState_Left},
      {"right", &CAudioHidCenter::GetButtonState_Right},
      {"M key 1", &CAudioHidCenter::GetButtonState_Key1},
      {"M key 2", &CAudioHidCenter::GetButtonState_Key2},
  };
  for (std::size_t i = 0; i < buttons_.size(); ++i) {
    const VoxButtonState state = ((*hub_).*getters[i].second)();
    if (std::exchange(buttons_[i], state) == state) continue;
    const std::string what = state == ButtonDown ? "down" : "up";
    add("button", {{"button", getters[i].first}, {"state", what}}, std::string(getters[i].first) + " button " + what);
  }
  if (hub_->Tern_IsShortPress_R()) add("short-press", Json::object(), "short press of the Tern's right key");
}

void Client::observe(const VoxObservation& observation, bool show) {
  if (observation.kind == VoxObservation_Told) return;
  if (observation.device > 0) {
    const std::lock_guard lock(mutex_);
    paths_.try_emplace(observation.device, observation.path);
  }
  if (!show) return;
  static const char* const names[] = {"sent", "write-failed", "received", "read-failed", "opened", "refused"};
  static const char* const arrows[] = {"->", "-x", "<-", "<x", "opened", "refused"};
  const std::string path = sim::utf8(observation.path);
  Json fields{{"what", names[observation.kind]}, {"device", observation.device}, {"path", path}};
  std::string text =
      (observation.device < 0 ? std::string("#?  ") : hash(observation.device)) + arrows[observation.kind];
  if (observation.report) {
    const std::string hex = hexOf(observation.report, observation.reportLength);
    fields["report"] = hex;
    text += " " + hex;
  } else {
    fields["error"] = observation.error;
    fields["input_length"] = observation.inputLength;
    fields["output_length"] = observation.outputLength;
    text += " " + path;
    if (observation.error != 0) text += ", error " + std::to_string(observation.error);
  }
  add("report", std::move(fields), text);
}

std::wstring Client::pathOf(int device) {
  const std::lock_guard lock(mutex_);
  return paths_[device];
}

void Client::Log(const wchar_t* text, LogType type) { addText("log", "log ", text, type); }

void Client::DebugLog(const wchar_t* text, LogType type) { addText("debug-log", "debug log ", text, type); }

void Client::addText(const char* name, const char* title, const wchar_t* text, LogType type) {
  const std::string own = sim::utf8(text);
  const std::string translated = english(own);
  const std::string category = nameOfLogCategory(type);
  add(name, {{"category", static_cast<int>(type)}, {"category_name", category}, {"text", own}, {"english", translated}},
      title + std::to_string(type) + " (" + category + "): " + own + (translated.empty() ? "" : " = " + translated));
}

void Client::Tray(const wchar_t* text, VoxTrayParams) {
  const std::string own = sim::utf8(text);
  const std::string translated = english(own);
  add("tray", {{"text", own}, {"english", translated}},
      "tray: " + own + (translated.empty() ? "" : " = " + translated));
}

void Client::MainWndWork(UserWorkType work) {
  add("main-window", {{"work", static_cast<int>(work)}}, "main window: the working mode has changed");
}

void Client::HidConnect(int device) {
  DeviceView view;
  view.number = device;
  view.model = modelName(hub_->GetHidMouseType(device));
  view.link = linkName(hub_->GetDeviceConnectMode(device));
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(devices_, [=](const DeviceView& known) { return known.number == device; });
    devices_.insert(std::upper_bound(devices_.begin(), devices_.end(), view,
                                     [](const DeviceView& a, const DeviceView& b) { return a.number < b.number; }),
                    view);
  }
  add("connect", {{"device", device}, {"model", view.model}, {"link", view.link}},
      hash(device) + view.model + " connected over " + view.link);
}

void Client::HidDisconnect(int device) {
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(devices_, [=](const DeviceView& known) { return known.number == device; });
  }
  add("disconnect", {{"device", device}}, hash(device) + "gone");
}

void Client::MKeyTypeSet(int device, int key, const unsigned char* types, int length) {
  Json supported = Json::array();
  std::string text;
  for (int i = 1; i < length; ++i) {
    supported.push_back(types[i]);
    text += " " + std::to_string(types[i]);
  }
  add("mkey-list", {{"device", device}, {"key", key}, {"current", types[0]}, {"supported", supported}},
      hash(device) + "M key " + std::to_string(key) + " has function " + std::to_string(types[0]) + " of" + text);
}

void Client::OtaProgress(int done, int total) {
  add("update-progress", {{"done", done}, {"total", total}},
      "firmware update: " + std::to_string(done) + " of " + std::to_string(total));
}

void Client::MainMenu(MainMenuType menu) {
  add("main-menu", {{"menu", static_cast<int>(menu)}, {"posted", false}},
      std::string("main window: ") + (menu == Screenshot ? "screenshot" : "open navigation"));
}

void Client::PostMainMenu(MainMenuType menu) {
  add("main-menu", {{"menu", static_cast<int>(menu)}, {"posted", true}},
      std::string("main window (posted): ") + (menu == Screenshot ? "screenshot" : "open navigation"));
}

void Client::onState(int device, MouseType model, DataChannel link, int word, int dpi, int battery) {
  const CVoxDeviceInfo& info = *CVoxDeviceInfo::Instance();
  const std::string identity =
      sim::utf8(info.GetBluetoothName()) == modelName(model) ? sim::utf8(info.GetBluetoothID()) : std::string();
  change(device, [&](DeviceView& view) {
    view.model = modelName(model);
    view.battery = battery;
    view.dpi = dpi;
    view.identity = identity;
  });
  add("state",
      {{"device", device},
       {"model", modelName(model)},
       {"link", linkName(link)},
       {"word", word},
       {"dpi", dpi},
       {"battery", battery},
       {"identity", identity}},
      hash(device) + modelName(model) + ", " + linkName(link) + ", battery " + percent(battery) + ", DPI " +
          std::to_string(dpi) + (identity.empty() ? "" : ", identity " + identity));
}

void Client::onAudio(const unsigned char* data, int byteCount) {
  std::vector<std::int16_t> pcm(static_cast<std::size_t>(byteCount) / 2);
  if (data) std::memcpy(pcm.data(), data, pcm.size() * 2);
  {
    const std::lock_guard lock(mutex_);
    audio_.insert(audio_.end(), pcm.begin(), pcm.end());
  }
  add("audio", {{"bytes", byteCount}},
      byteCount == 0 ? "end of the recording" : "audio, " + std::to_string(byteCount) + " bytes");
}

void Client::change(int device, const std::function<void(DeviceView&)>& edit) {
  const std::lock_guard lock(mutex_);
  for (DeviceView& view : devices_) {
    if (view.number == device) edit(view);
  }
}

void Client::add(const std::string& name, Json fields, const std::string& text) {
  const double now = seconds_();
  const std::lock_guard lock(mutex_);
  events_.push_back({now, name, std::move(fields), text});
}
