// Commands to one device: DPI, download URL, M key, state, any report.
#include <fmt/format.h>
#include <algorithm>
#include <cctype>
#include <cstring>
#include <utility>

#include "Session.h"
#include "Update.h"

namespace {

constexpr double kAnswerSeconds = 1;     // devices answer within some ms
constexpr double kConnectSeconds = 0.5;  // a little more than the requests of a connection take
constexpr double kMKeySeconds = 2.5;     // the library's own bound

// A session in which the chosen device has been found.
struct DeviceSession : Session {
  explicit DeviceSession(const Options& options) : Session(options) {
    discover({"none"});
    chosen = choose(options.device);
  }
  CAudioHidCenter& hub() { return client->hub(); }
  // The answer to a command: an event of this name from the chosen device. Shown when it comes.
  ClientEvent answer(const std::string& name, double seconds = kAnswerSeconds) {
    const auto event = waitFor(seconds, [&](const ClientEvent& candidate) {
      return candidate.name == name && candidate.fields["device"] == chosen.number;
    });
    if (!event) {
      failIfInterrupted("before device " + std::to_string(chosen.number) + " (" + chosen.model + ") had answered");
      throw Failure("device " + std::to_string(chosen.number) + " (" + chosen.model + ") did not answer within " +
                    fmt::format("{:.1f} s", seconds));
    }
    terminal.event(event->seconds, event->name, event->fields, event->text);
    return *event;
  }

  DeviceView chosen;
};

}  // namespace

void setDpi(const Options& options) {
  DeviceSession session(options);
  session.hub().SetDpi(session.chosen.number, static_cast<short>(options.dpi));
  const ClientEvent event = session.answer("dpi");
  session.finish();
  if (event.fields["ok"] != true) throw Failure("the device refused the DPI " + std::to_string(options.dpi));
}

void checkUrl(const std::string& url) {
  const auto cannotBeSent = [](unsigned char c) {
    return c > 0x7F || (std::isalnum(c) == 0 && !std::strchr("-=./", c));
  };
  const auto bad = std::find_if(url.begin(), url.end(), cannotBeSent);
  if (bad != url.end()) {
    // All bytes of it.
    const auto next = std::find_if(bad + 1, url.end(), [](unsigned char c) { return (c & 0xC0) != 0x80; });
    throw Failure("a URL can be sent in letters, digits, - = . and / only, not with '" + std::string(bad, next) + "'" +
                  (*bad == ':' ? "; leave out the scheme and its colon" : ""));
  }
}

void setUrl(const Options& options) {
  checkUrl(options.url);
  DeviceSession session(options);
  std::vector<unsigned char> url(options.url.begin(), options.url.end());  // replaced by the codes that are sent
  session.hub().SetDownloadURL(session.chosen.number, url.data(), static_cast<int>(url.size()));
  const ClientEvent event = session.answer("url");
  session.finish();
  if (event.fields["ok"] != true) throw Failure("the device refused the URL");
}

void listMKey(const Options& options) {
  DeviceSession session(options);
  session.hub().getMKeyTypeList_Key1(session.chosen.number);
  session.answer("mkey-list");
  session.finish();
}

void setMKey(const Options& options) {
  DeviceSession session(options);
  // Connecting asks for the list, too; its answer would be taken for this one's.
  session.runUntil(kConnectSeconds, {"none"}, [] { return false; });
  // Only a function that the device has listed can be set.
  session.hub().getMKeyTypeList_Key1(session.chosen.number);
  const ClientEvent list = session.answer("mkey-list");
  const auto status =
      session.hub().setMKeyType_Key1(session.chosen.number, static_cast<MouseMKeyType>(options.function));
  const std::string function = std::to_string(options.function);
  const int now = session.hub().GetMKeyType_Key1(session.chosen.number, 1);
  session.terminal.event(session.desk->seconds(), "mkey",
                         {{"device", session.chosen.number}, {"status", static_cast<int>(status)}, {"function", now}},
                         status == SetMKeyType_Confirmed ? "M key 1 has function " + function : "");
  session.finish();
  switch (status) {
    case SetMKeyType_Confirmed:
      return;
    case SetMKeyType_NotSupported:
      throw Failure("the device does not support function " + function + "; it has " + list.fields["supported"].dump());
    case SetMKeyType_NoAnswer:
      throw Failure(fmt::format("the device did not confirm within {:.1f} s", kMKeySeconds));
    case SetMKeyType_OtherType:
      throw Failure("the device kept function " + std::to_string(now));
    case SetMKeyType_NotReady:
      throw Failure("the device has gone");
  }
}

void showState(const Options& options) {
  DeviceSession session(options);
  session.hub().GetMouseState(session.chosen.number);
  session.answer("state");
  if (session.chosen.link == "USB") {
    session.hub().GetDongleState(session.chosen.number);
    session.answer("dongle-state");
  }
  session.finish();
}

namespace {

// "05 ff:f1FE" and the like.
std::vector<std::uint8_t> bytesOf(const std::vector<std::string>& words) {
  std::string digits;
  for (const std::string& word : words) {
    for (const char c : word) {
      if (c == ' ' || c == ':') continue;
      if (!std::isxdigit(static_cast<unsigned char>(c))) {
        throw Failure(word + ": expected a report in hexadecimal, as 05 FF F1 FE C0 0C 00 EF");
      }
      digits += c;
    }
  }
  if (digits.empty() || digits.size() % 2 != 0) throw Failure("a report has two digits to each byte");
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

}  // namespace

void sendReport(const Options& options) {
  const std::vector<std::uint8_t> report = bytesOf(options.hex);
  if (updateFrameOf(report) && !options.force) {
    throw Failure("this report belongs to a firmware update, and can leave the device unusable; --force sends it");
  }
  Session session(options);
  session.discover({"none"});
  const int device = session.choose(options.device).number;
  session.showReports(true);
  session.writeReport(device, report);
  session.runUntil(options.waitMilliseconds / 1000, {"report"}, [] { return false; });
  session.showReports(false);
  session.finish();
}
