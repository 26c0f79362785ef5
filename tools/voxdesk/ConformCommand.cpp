// docs/protocol.md as rules, tried with a device: what it answers, how fast, and what it sends unasked.
#include <fmt/format.h>
#include <algorithm>
#include <limits>
#include <map>
#include <sstream>
#include <tuple>
#include <utility>

#include "Files.h"
#include "Session.h"
#include "Survey.h"
#include "System.h"
#include "Table.h"
#include "hid/HidFrame.h"
#include "sim/Text.h"
#include "tools/capture/Decode.h"
#include "tools/capture/Story.h"

namespace {

using capture::Time;

constexpr double kHeartbeatSeconds = 5;
constexpr double kPatienceSeconds = 1.2;  // a little more than the library waits
constexpr double kSpeechSeconds = 2;
constexpr Time kSlowest = 250'000;       // microseconds
constexpr Time kOnItsWay = 200'000;      // speech, when the channel is closed
constexpr std::size_t kUntilAsleep = 3;  // heartbeats in a row that stay unanswered
constexpr Time kMicrosecondsOfMillisecond = 1000;

struct Passed {
  Time time = 0;
  bool sent = false;
  capture::Decoded report;
};

enum class Outcome { passed, failed, skipped };
const char* const kOutcomes[] = {"passed", "failed", "skipped"};

struct Result {
  std::string rule;  // "answers GetMouseState"
  Outcome outcome = Outcome::passed;
  std::string note;
};

// What has become of all requests of one kind.
struct Answers {
  std::size_t sent = 0;
  std::size_t unanswered = 0;
  std::size_t spoilt = 0;  // likewise, but a damaged frame has come instead
  std::size_t twice = 0;
  std::string refusal;
  std::vector<Time> delays;
};

struct Sleep {
  Time from = 0;     // its first unanswered heartbeat
  Time deepest = 0;  // its last one
  Time to = 0;
  bool woke = false;
};

class Judge {
 public:
  Judge(std::vector<Passed> passed, const ModelSheet& model)
      : passed_(std::move(passed)), model_(model), sleeps_(sleeps()) {}

  std::vector<Result> judge(const VoxSpeechCounts& counts);

 private:
  bool is(const Passed& each, bool sent, std::uint8_t code) const {
    return each.sent == sent && each.report.form == capture::Form::Frame && each.report.code == code;
  }
  std::vector<Sleep> sleeps() const;
  Answers answersTo(const capture::Request& request) const;
  void judgeAnswers();
  void judgeIdentity();
  void judgeSleep();
  void judgeSpeech(const VoxSpeechCounts& counts);
  void add(const std::string& rule, bool good, const std::string& note = {}) {
    results_.push_back({rule, good ? Outcome::passed : Outcome::failed, note});
  }
  void skip(const std::string& rule, const std::string& why) { results_.push_back({rule, Outcome::skipped, why}); }

  const std::vector<Passed> passed_;
  const ModelSheet& model_;
  const std::vector<Sleep> sleeps_;
  std::vector<Result> results_;
};

std::vector<Sleep> Judge::sleeps() const {
  std::vector<Sleep> sleeps;
  Sleep sleep;
  std::size_t unanswered = 0;
  for (const Passed& each : passed_) {
    if (is(each, true, Heartbeat)) {
      // The last one may be answered yet.
      if (unanswered > 0) sleep.deepest = sleep.to;
      if (++unanswered == 1) sleep.from = each.time;
      sleep.to = each.time;
    } else if (is(each, false, HeartbeatReply)) {
      if (unanswered > kUntilAsleep) sleeps.push_back({sleep.from, sleep.deepest, each.time, true});
      unanswered = 0;
    }
  }
  if (unanswered > kUntilAsleep) sleeps.push_back({sleep.from, sleep.deepest, passed_.back().time, false});
  return sleeps;
}

Answers Judge::answersTo(const capture::Request& request) const {
  Answers answers;
  const Time end = passed_.empty() ? 0 : passed_.back().time;
  for (std::size_t i = 0; i < passed_.size(); ++i) {
    const bool sleeping = std::any_of(sleeps_.begin(), sleeps_.end(), [&](const Sleep& sleep) {
      return passed_[i].time >= sleep.from && passed_[i].time < sleep.to;
    });
    if (!is(passed_[i], true, request.code) || sleeping) continue;
    ++answers.sent;
    std::size_t count = 0;
    bool damaged = false;
    // Until the next request that is answered so.
    const auto asksAgain = [&](const Passed& each) {
      const capture::Request* next = capture::requestOf(each.report.code);
      return each.sent && each.report.form == capture::Form::Frame && next && next->firstAnswer == request.firstAnswer;
    };
    for (std::size_t j = i + 1; j < passed_.size() && !asksAgain(passed_[j]); ++j) {
      const Passed& each = passed_[j];
      const Time delay = each.time - passed_[i].time;
      damaged = damaged || (each.report.form == capture::Form::Damaged && delay < kSlowest);
      if (each.sent || each.report.form != capture::Form::Frame || each.report.code < request.firstAnswer ||
          each.report.code > request.lastAnswer) {
        continue;
      }
      if (++count == 1) answers.delays.push_back(delay);
      const auto& [wanted, got] = std::tie(passed_[i].report.payload, each.report.payload);
      if (each.report.refuses ||
          (request.code == SetMKeyType && !wanted.empty() && !got.empty() && wanted[0] != got[0]))
        answers.refusal = each.report.words;
    }
    const bool over = end - passed_[i].time >= request.patience * kMicrosecondsOfMillisecond;
    if (count == 0 && damaged) ++answers.spoilt;
    if (count == 0 && !damaged && over) ++answers.unanswered;
    if (count > 1) ++answers.twice;
  }
  return answers;
}

void Judge::judgeAnswers() {
  std::string late;
  std::string twice;
  for (const capture::Request& request : capture::requests()) {
    if (request.firstAnswer == 0) continue;
    Answers answers = answersTo(request);
    if (answers.sent == 0) continue;
    std::sort(answers.delays.begin(), answers.delays.end());
    const std::string rule = std::string("answers ") + request.name;
    const std::string times = answers.delays.empty()
                                  ? ""
                                  : "after " + capture::milliseconds(answers.delays[answers.delays.size() / 2]) +
                                        " (median), " + capture::milliseconds(answers.delays.back()) + " (worst)";
    if (!answers.delays.empty() && answers.delays.back() > kSlowest)
      late += (late.empty() ? "" : ", ") + std::string(request.name);
    if (answers.twice > 0) twice += (twice.empty() ? "" : ", ") + std::string(request.name);
    const std::string count = std::to_string(answers.unanswered) + " of " + std::to_string(answers.sent);
    if (request.code == GetDongleState && answers.delays.empty()) {
      skip(rule, "there is no receiver, or it does not answer");
    } else if (answers.spoilt > 0) {
      skip(rule, "a damaged frame came instead");
    } else if (answers.unanswered > 0) {
      add(rule, false, count + " not answered");
    } else if (!answers.refusal.empty()) {
      add(rule, false, answers.refusal);
    } else {
      add(rule, true, times);
    }
  }
  add("answers within 250 ms", late.empty(), late);
  add("answers once", twice.empty(), twice);
}

void Judge::judgeIdentity() {
  const std::string rule = "names its model";
  const auto named = std::find_if(passed_.begin(), passed_.end(), [](const Passed& each) {
    return !each.sent && each.report.form == capture::Form::Frame && FindByIdentifyReply(each.report.code) != nullptr;
  });
  if (model_.firmware == FirmwareFamily::Tern) {
    skip(rule, "it is not asked");
  } else if (named == passed_.end()) {
    skip(rule, "it has not answered Identify");
  } else {
    const ModelSheet& model = *FindByIdentifyReply(named->report.code);
    add(rule, model.number == model_.number, sim::utf8(model.name));
  }
}

void Judge::judgeSleep() {
  const std::string rule = "is silent while it sleeps";
  if (sleeps_.empty()) return skip(rule, "it did not fall asleep");
  for (const Sleep& sleep : sleeps_) {
    const auto count = std::count_if(passed_.begin(), passed_.end(), [&](const Passed& each) {
      return !each.sent && each.time > sleep.from + kSlowest && each.time < sleep.deepest;
    });
    if (count > 0)
      return add(rule, false,
                 capture::plural(static_cast<std::size_t>(count), "report") + ", but no answer to a heartbeat");
  }
  if (!sleeps_.back().woke) return skip(rule, "it did not wake again: press one of its keys, and try once more");
  const Time slept = sleeps_.back().to - sleeps_.back().from;
  add(rule, true, "it woke after " + capture::milliseconds(slept));
}

void Judge::judgeSpeech(const VoxSpeechCounts& counts) {
  Time opened = -1;
  Time closed = 0;  // before it is opened for the first time, too
  bool asked = false;
  std::size_t early = 0;
  std::size_t unasked = 0;
  std::size_t reports = 0;
  std::size_t otherCodec = 0;
  Time first = -1;
  for (const Passed& each : passed_) {
    if (is(each, true, VoiceOpen)) asked = true;
    if (is(each, false, VoiceOpenReply) && !each.report.refuses) std::tie(opened, asked) = std::tuple(each.time, false);
    if (is(each, false, VoiceStopReply)) std::tie(opened, closed) = std::tuple(Time{-1}, each.time);
    if (each.sent || each.report.form != capture::Form::Speech) continue;
    if (opened >= 0) {
      if (first < 0) first = each.time - opened;
      ++reports;
      const bool sbc = each.report.code == AudioDataWren;
      otherCodec += (model_.codec == SpeechCodec::Sbc && !sbc) || (model_.codec == SpeechCodec::Closed && sbc) ? 1 : 0;
    } else if (asked) {
      ++early;
    } else if (each.time - closed > kOnItsWay || closed == 0) {
      ++unasked;
    }
  }
  add("sends no speech while its voice channel is closed", unasked == 0, capture::plural(unasked, "report"));
  const bool everOpened = std::any_of(passed_.begin(), passed_.end(), [this](const Passed& each) {
    return is(each, false, VoiceOpenReply) && !each.report.refuses;
  });
  if (!everOpened) {
    for (const char* rule : {"sends speech", "sends speech at an even pace", "speaks its model's codec"}) {
      skip(rule, "its voice channel did not open");
    }
    return;
  }
  add("sends speech", reports > 0 && early == 0 && first <= kSlowest,
      reports == 0 ? "none"
      : early > 0  ? capture::plural(static_cast<std::size_t>(early), "report") + " before the channel was open"
                   : "the first report after " + capture::milliseconds(first));
  if (reports == 0) {
    skip("sends speech at an even pace", "none came");
    return skip("speaks its model's codec", "none came");
  }
  add("sends speech at an even pace", counts.missing == 0 && counts.late == 0,
      std::to_string(counts.missing) + " missing, " + std::to_string(counts.late) + " late");
  add("speaks its model's codec", otherCodec == 0);
}

std::vector<Result> Judge::judge(const VoxSpeechCounts& counts) {
  std::string damaged;
  for (const Passed& each : passed_) {
    if (!each.sent && each.report.form == capture::Form::Damaged) damaged = each.report.name + " " + each.report.words;
  }
  add("sends whole frames of the lengths that are known", damaged.empty(), damaged);
  judgeIdentity();
  judgeAnswers();
  judgeSleep();
  judgeSpeech(counts);
  return std::move(results_);
}

// Nothing is changed without being asked for.
bool maySet(const Options& options, bool mKeys) {
  if (options.yes || !isScreen(stdin)) return options.yes;
  fmt::print(stderr, "May the DPI be set to what it is{}? [y/N] ",
             mKeys ? ", and the M key to another function and back" : "");
  char line[16] = "";
  return waitForLine(line, sizeof line) && (line[0] == 'y' || line[0] == 'Y');
}

std::string escaped(const std::string& text) {
  std::string safe;
  for (const char c : text) {
    static const std::map<char, const char*> entities{{'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}};
    const auto entity = entities.find(c);
    safe += entity == entities.end() ? std::string(1, c) : entity->second;
  }
  return safe;
}

void writeJunit(const std::string& path, const std::string& device, const std::vector<Result>& results) {
  const auto count = [&](Outcome outcome) {
    return std::count_if(results.begin(), results.end(), [=](const Result& each) { return each.outcome == outcome; });
  };
  std::ostringstream file;
  file << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"" << escaped(device) << "\" tests=\""
       << results.size() << "\" failures=\"" << count(Outcome::failed) << "\" skipped=\"" << count(Outcome::skipped)
       << "\">\n";
  for (const Result& each : results) {
    file << "  <testcase classname=\"voxdesk.conform\" name=\"" << escaped(each.rule) << "\">";
    if (each.outcome == Outcome::failed) file << "<failure message=\"" << escaped(each.note) << "\"/>";
    if (each.outcome == Outcome::skipped) file << "<skipped message=\"" << escaped(each.note) << "\"/>";
    file << "</testcase>\n";
  }
  file << "</testsuite>\n";
  writeOutput(path, file.str());
}

// Gives the M key the next of its functions, and what it had. Nothing where it tells no list, or one function alone.
void setMKey(Session& session, const DeviceView& device) {
  CAudioHidCenter& hub = session.client->hub();
  hub.getMKeyTypeList_Key1(device.number);
  const auto list = session.waitFor(kPatienceSeconds, [&](const ClientEvent& event) {
    return event.name == "mkey-list" && event.fields["device"] == device.number;
  });
  session.failIfInterrupted("before all rules were tried");
  if (!list) return;
  const int had = list->fields["current"];
  for (const int other : list->fields["supported"]) {
    if (other == had) continue;
    hub.setMKeyType_Key1(device.number, static_cast<MouseMKeyType>(other));
    hub.setMKeyType_Key1(device.number, static_cast<MouseMKeyType>(had));
    return;
  }
}

// Asks the device for everything that changes nothing; sets (sets) what is as it was in the end, and the URL that was
// given.
VoxSpeechCounts exercise(Session& session, const DeviceView& device, const ModelSheet& model, bool setsDpi,
                         bool setsMKey, const std::string& url) {
  CAudioHidCenter& hub = session.client->hub();
  const auto wait = [&session](double seconds) {
    session.runUntil(seconds, {"none"}, [] { return false; });
    session.failIfInterrupted("before all rules were tried");
  };
  wait(kHeartbeatSeconds);
  hub.GetMouseState(device.number);
  hub.GetDongleState(device.number);
  wait(kPatienceSeconds);
  if (setsMKey) {
    setMKey(session, device);
  } else if (model.hasMKeys) {
    hub.getMKeyTypeList_Key1(device.number);
    wait(kPatienceSeconds);
  }
  if (setsDpi) {
    hub.SetDpi(device.number, static_cast<short>(device.dpi));
    wait(kPatienceSeconds);
  }
  if (!url.empty()) {
    std::vector<unsigned char> bytes(url.begin(), url.end());  // replaced by the codes that are sent
    hub.SetDownloadURL(device.number, bytes.data(), static_cast<int>(bytes.size()));
    wait(kPatienceSeconds);
  }
  hub.ChooseWorkHidDevice(device.number);
  if (hub.OpenHidRecord()) {
    wait(kSpeechSeconds);
    hub.CloseHidRecord();
    session.client->takeAudio();
  }
  VoxSpeechCounts counts{};
  hub.GetSpeechCounts(device.number, counts);
  wait(kPatienceSeconds);
  return counts;
}

std::vector<Passed> whatPassed(const capture::Capture& seen, const ModelSheet& model) {
  std::vector<Passed> passed;
  for (const capture::Event& event : seen.events) {
    const bool sent = event.kind == capture::Kind::Sent;
    if (!sent && event.kind != capture::Kind::Received) continue;
    const auto& hid = seen.interfaces[static_cast<std::size_t>(event.hid)];
    passed.push_back({event.time, sent, capture::decode(event.report, sent, hid, model)});
  }
  return passed;
}

}  // namespace

void conform(const Options& options) {
  checkOutput(options.junit);
  checkUrl(options.url);
  Survey survey;
  Session session(options, false, &survey);
  session.discover({"none"});
  const DeviceView device = session.choose(options.device);
  const auto sheets = ModelSheets();
  const auto model = std::find_if(sheets.begin(), sheets.end(),
                                  [&](const ModelSheet& sheet) { return sim::utf8(sheet.name) == device.model; });
  if (model == sheets.end()) throw Failure("there are no rules for a " + device.model);
  // The library sets a signed one: what is larger would become another.
  const bool canSetDpi = device.dpi >= 0 && device.dpi <= std::numeric_limits<short>::max();
  const bool sets = maySet(options, model->hasMKeys);
  const bool setsDpi = canSetDpi && sets;
  const bool setsMKey = model->hasMKeys && sets;
  const std::string title = "#" + std::to_string(device.number) + " " + device.model + ", " + device.link;
  session.terminal.say("Trying " + title + "; this takes about 15 s.");
  const VoxSpeechCounts counts = exercise(session, device, *model, setsDpi, setsMKey, options.url);
  Judge judge(whatPassed(survey.capture(sim::utf8(session.client->pathOf(device.number))), *model), *model);
  std::vector<Result> results = judge.judge(counts);
  if (!setsDpi) {
    results.push_back({"answers SetDpi", Outcome::skipped,
                       canSetDpi ? "it would write a setting; --yes allows it" : "its DPI is not one that can be set"});
  }
  if (model->hasMKeys && !setsMKey)
    results.push_back({"answers SetMKeyType", Outcome::skipped, "it would write a setting; --yes allows it"});
  if (options.url.empty())
    results.push_back({"answers SetDownloadUrl", Outcome::skipped, "its URL would be lost; --url URL sends another"});
  std::size_t failed = 0;
  Table table({{"outcome"}, {"rule"}, {"note"}});
  for (const Result& each : results) {
    failed += each.outcome == Outcome::failed ? 1 : 0;
    const char* const outcome = kOutcomes[static_cast<int>(each.outcome)];
    table.add({outcome, each.rule, each.note});
    session.terminal.event(session.desk->seconds(), "rule",
                           {{"device", device.number}, {"rule", each.rule}, {"outcome", outcome}, {"note", each.note}},
                           "");
  }
  session.terminal.table(table);
  if (!options.junit.empty()) writeJunit(options.junit, title, results);
  session.finish();
  if (failed > 0) throw Failure(title + " breaks " + capture::plural(failed, "rule"));
}
