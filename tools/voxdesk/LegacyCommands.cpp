// The older mice, the voice keyboard and the laser pen.
#include <cmath>
#include <optional>
#include <set>

#include "Session.h"
#include "Survey.h"
#include "sim/Text.h"

namespace {

// Everything of the library that belongs to older hardware, at work.
struct OlderHardware {
  explicit OlderHardware(CAudioHidCenter& hub) {
    const CSoftModeSwitch::PauseCallback never = [](void*) { return false; };
    mouse.Init();
    mouse.StartCheck();
    modes.StartCheck(reinterpret_cast<void*>(never), nullptr, &mouse, &hub, &pen);
  }
  CFormerMouse mouse;
  CFormerLaserPen pen;
  CSoftModeSwitch modes;  // goes first: it uses the others
};

const char* kindName(int kind) {
  static const char* const names[] = {"", "mouse (or nothing)", "laser pen", "mouse and laser pen"};
  return names[kind];
}

const char* modeName(int mode) { return mode == HardWare_LaserPen ? "laser pen" : "mouse"; }

const char* buttonName(bool down) { return down ? "down" : "up"; }

// What is seen of the hardware; an event for each change.
class LegacyView {
 public:
  LegacyView(Session& session, OlderHardware& hardware) : session_(session), hardware_(hardware) {}

  void look() {
    const double now = session_.desk->seconds();
    if (now >= nextHardwareLook_) {
      nextHardwareLook_ = now + 1;
      lookAtHardware();
      lookForSilentOnes();
    }
    CFormerMouse& mouse = hardware_.mouse;
    change("left", mouse.GetKey_M_L() == ButtonDown, left_, "left key ");
    change("right", mouse.GetKey_M_R() == ButtonDown, right_, "right key ");
    change("control", hardware_.pen.GetKey_P_control() == ButtonDown, control_, "laser pen's control key ");
    const int clicks = mouse.GetClickMode_L();
    if (clicks_ != clicks) {
      static const char* const names[] = {"no double click", "double click", "double click, but no network"};
      if (clicks_) say("click-mode", {{"mode", clicks}}, names[clicks]);
      clicks_ = clicks;
    }
    const int mode = CPreferences::Instance()->GetHardWare();
    if (mode_ != mode) say("mode", {{"mode", mode}}, std::string("working mode: ") + modeName(mode));
    mode_ = mode;
  }

 private:
  void lookAtHardware() {
    const int kind = hardware_.mouse.ReCheckHardwareKind();
    const int sound = hardware_.mouse.IsConnect();
    const int revision = hardware_.mouse.GetMouseRevision();
    const std::string identity = sim::utf8(CVoxDeviceInfo::Instance()->GetFormerDeviceID());
    const std::string text = std::string("plugged in: ") + kindName(kind) + ", identity " + identity +
                             (revision == 2 ? ", no sound function" : ", revision " + std::to_string(revision + 1));
    if (text == hardware_text_) return;
    hardware_text_ = text;
    say("hardware", {{"kind", kind}, {"identity", identity}, {"sound", sound}, {"revision", revision}}, text);
  }
  // Once for each device that this user may not open.
  void lookForSilentOnes() {
    std::vector<std::wstring> paths;
    CAudioHidCenter::EnumerateHidInterfaces(paths);
    for (const std::wstring& path : paths) lookAtSilent(sim::utf8(path));
  }
  void lookAtSilent(const std::string& path) {
    const std::string older = olderOf(path);
    const std::string denied = older.empty() ? "" : session_.desk->denied(path);
    if (denied.empty() || !silent_.insert(path).second) return;
    session_.terminal.tell("An " + older + " stays silent: " + denied + ".");
  }
  void change(const char* key, bool down, bool& known, const char* text) {
    if (std::exchange(known, down) != down)
      say("key", {{"key", key}, {"down", down}}, std::string(text) + buttonName(down));
  }
  void say(const char* name, const Json& fields, const std::string& text) {
    session_.terminal.event(session_.desk->seconds(), name, fields, text);
  }

  Session& session_;
  OlderHardware& hardware_;
  double nextHardwareLook_ = 0;
  std::string hardware_text_;
  std::set<std::string> silent_;
  bool left_ = false;
  bool right_ = false;
  bool control_ = false;
  std::optional<int> clicks_;
  std::optional<int> mode_;
};

}  // namespace

void watchLegacy(const Options& options) {
  Session session(options, true);
  if (const std::string missing = session.desk->missing(); !missing.empty()) session.terminal.tell(missing + ".");
  if (options.seconds <= 0) session.terminal.say("Older hardware, until Ctrl-C.");
  {
    OlderHardware hardware(session.client->hub());
    LegacyView view(session, hardware);
    session.runUntil(options.seconds > 0 ? options.seconds : HUGE_VAL,
                     {"log", "debug-log", "tray", "main-window", "main-menu"}, [&] {
                       view.look();
                       return false;
                     });
  }
  // The event of the poller, and the files of HID devices that were released, stay open, deliberately.
  session.finish({.handles = 1 + session.desk->legacyHids()});
}
