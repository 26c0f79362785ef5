// A client of the library: it owns the hub, and turns everything that the library tells it into events.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Terminal.h"
#include "VoxDevice/VoxDevice.h"

// What is known of one announced device.
struct DeviceView {
  int number = 0;
  std::string model;
  std::string link;
  int battery = -1;  // percent; -1 until the device has said
  int dpi = -1;
  std::string identity;  // empty unless the registry holds that of this model
};

struct ClientEvent {
  double seconds = 0;
  std::string name;
  Json fields;
  std::string text;
};

class Client : public VoxMessageSink {
 public:
  // seconds: the time of now, for the events.
  explicit Client(std::function<double()> seconds);
  // Stops cleanly, if stop has not been called.
  ~Client() override;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void start();
  void stop();
  CAudioHidCenter& hub() { return *hub_; }

  std::vector<ClientEvent> takeEvents();
  // The audio that has come since the last call.
  std::vector<std::int16_t> takeAudio();
  // The announced devices, in the order of their numbers.
  std::vector<DeviceView> devices();
  // What passes between the library and a device; an event of it, if it is to be shown. On any thread.
  void observe(const VoxObservation& observation, bool show);
  // The HID interface of a device.
  std::wstring pathOf(int device);
  // Looks at the buttons, as clients do, and makes events of their changes. Call it often.
  void pollButtons();

 private:
  void Log(const wchar_t* text, LogType type) override;
  void DebugLog(const wchar_t* text, LogType type) override;
  void Tray(const wchar_t* text, VoxTrayParams parameters) override;
  void MainWndWork(UserWorkType work) override;
  void HidConnect(int device) override;
  void HidDisconnect(int device) override;
  void MKeyTypeSet(int device, int key, const unsigned char* types, int length) override;
  void OtaProgress(int done, int total) override;
  void MainMenu(MainMenuType menu) override;
  void PostMainMenu(MainMenuType menu) override;

  void registerCallbacks();
  void addText(const char* name, const char* title, const wchar_t* text, LogType type);
  void add(const std::string& name, Json fields, const std::string& text);
  void onAudio(const unsigned char* data, int byteCount);
  void onState(int device, MouseType model, DataChannel link, int word, int dpi, int battery);
  void change(int device, const std::function<void(DeviceView&)>& edit);

  const std::function<double()> seconds_;
  std::unique_ptr<CAudioHidCenter> hub_;
  // Guards what follows; never held while calling the library.
  std::mutex mutex_;
  std::vector<ClientEvent> events_;
  std::vector<std::int16_t> audio_;
  std::vector<DeviceView> devices_;
  std::vector<VoxButtonState> buttons_;
  std::map<int, std::wstring> paths_;  // by the devices' numbers
};

// "80 %", or "?" while it is not known.
std::string percent(int battery);
