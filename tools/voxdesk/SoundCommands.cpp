// The computer's own microphones and speaker.
#include <fmt/format.h>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <mutex>

#include "Session.h"
#include "Table.h"
#include "Take.h"
#include "sim/Text.h"

namespace {

// Takes what a recorder delivers on its own thread.
class Inbox {
 public:
  static void onData(const char* data, int byteCount, void* self) {
    auto* inbox = static_cast<Inbox*>(self);
    if (!data) return;
    const std::lock_guard lock(inbox->mutex_);
    const std::size_t at = inbox->samples_.size();
    inbox->samples_.resize(at + static_cast<std::size_t>(byteCount) / 2);
    std::memcpy(inbox->samples_.data() + at, data, static_cast<std::size_t>(byteCount) / 2 * 2);
  }
  std::vector<std::int16_t> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(samples_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::int16_t> samples_;
};

// What the library says of a failure, from its log.
std::string reason(Client& client) {
  std::string text;
  for (const ClientEvent& event : client.takeEvents()) {
    if (event.name != "log" || event.fields["category"] != static_cast<int>(LogType_Recording)) continue;
    text += (text.empty() ? "" : "; ") + event.fields["text"].get<std::string>();
  }
  return text.empty() ? "" : " (the library says: " + text + ")";
}

// Records until the time is over, the source has nothing more, or somebody interrupts.
template <class Recorder>
void recordUntil(Session& session, Recorder& recorder, Inbox& inbox, double seconds, const Options& options) {
  Take take(session, options);
  session.runUntil(seconds + 0.2, {"none"}, [&] {
    take.add(inbox.take());
    return take.seconds() >= seconds || take.over();
  });
  recorder.StopRecord();
  take.add(inbox.take());
  take.finish();
}

// What has no sound cannot be recorded.
void failWithoutSound(const Session& session) {
  if (const std::string missing = session.desk->missing(); !missing.empty()) throw Failure(missing);
}

}  // namespace

void listSound(const Options& options) {
  Session session(options);
  failWithoutSound(session);
  const auto microphones = session.desk->microphones();
  const CVoxRecord::Choice choice = CVoxRecord().ChooseDevice();
  const int card = CVoxRecord::VoxCheckSoundCard();
  Table sources({{"#", Table::Side::right}, {"capture device"}, {"chosen"}});
  for (std::size_t i = 0; i < microphones.size(); ++i) {
    const bool chosen = static_cast<int>(i) == choice.index;
    sources.add({std::to_string(i), microphones[i].name, chosen ? choice.rule : "-"});
    session.terminal.event(session.desk->seconds(), "capture-device",
                           {{"index", i}, {"name", microphones[i].name}, {"chosen", chosen}}, "");
  }
  microphones.empty() ? session.terminal.tell("No capture device.") : session.terminal.table(sources);
  if (choice.index < 0) session.terminal.tell(std::string("None would be recorded: ") + choice.rule + ".");
  session.terminal.tell("Sound card: " + sim::utf8(CVoxDeviceInfo::Instance()->GetFormerDeviceName()));
  session.terminal.event(session.desk->seconds(), "sound-card",
                         {{"index", card}, {"name", sim::utf8(CVoxDeviceInfo::Instance()->GetFormerDeviceName())}}, "");
  const auto endpoints = session.desk->endpoints();
  Table volumes({{"#", Table::Side::right}, {"capture endpoint"}, {"volume", Table::Side::right}, {"muted"}});
  for (std::size_t i = 0; i < endpoints.size(); ++i) {
    const SoundEndpoint& endpoint = endpoints[i];
    volumes.add({std::to_string(i), endpoint.name, fmt::format("{:.0f} %", 100.0 * endpoint.volume),
                 endpoint.muted ? "yes" : "no"});
    session.terminal.event(session.desk->seconds(), "endpoint",
                           {{"index", i},
                            {"name", endpoint.name},
                            {"volume", std::round(100.0 * endpoint.volume) / 100},
                            {"muted", endpoint.muted}},
                           "");
  }
  endpoints.empty() ? session.terminal.tell("No capture endpoint.") : session.terminal.table(volumes);
  const auto speaker = session.desk->speaker();
  session.terminal.tell(speaker ? "Speaker: " + std::to_string(speaker->rate) + " Hz, " +
                                      std::to_string(speaker->channels) +
                                      (speaker->channels == 1 ? " channel" : " channels")
                                : "No speaker.");
  session.terminal.event(session.desk->seconds(), "speaker",
                         {{"present", speaker.has_value()},
                          {"rate", speaker ? speaker->rate : 0},
                          {"channels", speaker ? speaker->channels : 0}},
                         "");
  session.finish();
}

void recordMicrophone(const Options& options) {
  Take::checkWritable(options);
  Session session(options);
  failWithoutSound(session);
  if (!options.microphone.empty()) {
    // Of one that is spelled otherwise, the first.
    std::string name = options.microphone;
    const auto all = session.desk->microphones();
    const auto has = [](const std::string& text, const std::string& part) {
      return text.find(part) != std::string::npos;
    };
    if (std::none_of(all.begin(), all.end(), [&](const SoundSource& known) { return has(known.name, name); })) {
      const auto other = std::find_if(all.begin(), all.end(),
                                      [&](const SoundSource& known) { return has(lower(known.name), lower(name)); });
      if (other != all.end()) name = other->name;
    }
    CDeviceData::Instance()->SetRecordName(sim::wide(name));
    CDeviceData::Instance()->SetRecordByName(true);
  }
  Inbox inbox;
  {
    CVoxRecord recorder;
    recorder.Init(reinterpret_cast<void*>(&Inbox::onData), &inbox);
    const CVoxRecord::Choice choice = recorder.ChooseDevice();
    if (choice.index < 0) {
      std::string names;
      for (const SoundSource& known : session.desk->microphones()) names += (names.empty() ? "" : ", ") + known.name;
      throw Failure((options.microphone.empty() ? choice.rule : "no name contains \"" + options.microphone + '"') +
                    "; there are: " + (names.empty() ? "none" : names));
    }
    session.terminal.say("Recording " + sim::utf8(choice.name) + " (" + choice.rule + ").");
    const SoundSource source = session.desk->microphones().at(static_cast<std::size_t>(choice.index));
    const double seconds = Take::durationOf(options, source.seconds);
    if (recorder.StartRecord() != 1) throw Failure("the microphone cannot be recorded" + reason(*session.client));
    recordUntil(session, recorder, inbox, seconds, options);
  }
  session.finish();
}

void recordSpeaker(const Options& options) {
  Take::checkWritable(options);
  Session session(options);
  failWithoutSound(session);
  Inbox inbox;
  {
    CVoxSpeakerRecord recorder;
    recorder.Init(reinterpret_cast<void*>(&Inbox::onData), &inbox);
    const auto speaker = session.desk->speaker();
    const double seconds = Take::durationOf(options, speaker ? speaker->seconds : 0.0);
    if (recorder.StartRecord() != 1) throw Failure("the speaker cannot be recorded" + reason(*session.client));
    recordUntil(session, recorder, inbox, seconds, options);
  }
  session.finish({.comReferences = 1});  // the recorder's device
}
