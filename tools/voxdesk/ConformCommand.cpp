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
constexpr int kSettleSeconds = 5;          // until it has answered everything, or has fallen asleep
constexpr Time kFirstSpeech = 250'000;     // microseconds
constexpr Time kOnItsWay = 200'000;        // speech, when the channel is closed
constexpr Time kChannelTime = 1'000'000;   // in which it opens, and closes
constexpr std::size_t kUntilAsleep = 3;    // heartbeats in a row that stay unanswered
constexpr std::uint32_t kCancelled = 995;  // a read that the client itself has ended
constexpr Time kMicrosecondsOfMillisecond = 1000;
constexpr double kMicrosecondsOfSecond = 1e6;

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
  Time heard = 0;    // what it sent last before
  Time from = 0;     // its first unanswered heartbeat
  Time deepest = 0;  // its last one
  Time to = 0;
  bool woke = false;
};

class Judge {
 public:
  // untried: why requests were not sent, by their codes.
  Judge(std::vector<Passed> passed, const ModelSheet& model, std::map<std::uint8_t, std::string> untried)
      : passed_(std::move(passed)), model_(model), untried_(std::move(untried)), sleeps_(sleeps()) {}

  std::vector<Result> judge(const VoxSpeechCounts& counts);

 private:
  bool is(const Passed& each, bool sent, std::uint8_t code) const {
    return each.sent == sent && each.report.form == capture::Form::Frame && each.report.code == code;
  }
  std::vector<Sleep> sleeps() const;
  // The answer that ends a sleep is to a heartbeat from within it.
  bool inSleep(const Passed& each) const {
    return std::any_of(sleeps_.begin(), sleeps_.end(), [&](const Sleep& sleep) {
      return each.time > sleep.heard &&
             (each.time < sleep.to || (each.time == sleep.to && (!sleep.woke || is(each, false, HeartbeatReply))));
    });
  }
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
  const std::map<std::uint8_t, std::string> untried_;
  const std::vector<Sleep> sleeps_;
  std::vector<Result> results_;
};

std::vector<Sleep> Judge::sleeps() const {
  std::vector<Sleep> sleeps;
  Sleep sleep;
  Time heard = 0;
  std::size_t unanswered = 0;
  for (const Passed& each : passed_) {
    if (is(each, true, Heartbeat)) {
      if (unanswered > 0) sleep.deepest = sleep.to;
      if (++unanswered == 1) std::tie(sleep.heard, sleep.from) = std::tuple(heard, each.time);
      sleep.to = each.time;  // the last one may be answered yet
    } else if (is(each, false, HeartbeatReply)) {
      if (unanswered > kUntilAsleep) sleeps.push_back({sleep.heard, sleep.from, sleep.deepest, each.time, true});
      unanswered = 0;
    }
    if (!each.sent) heard = each.time;
  }
  if (unanswered > kUntilAsleep) sleeps.push_back({sleep.heard, sleep.from, sleep.deepest, passed_.back().time, false});
  return sleeps;
}

Answers Judge::answersTo(const capture::Request& request) const {
  Answers answers;
  std::vector<std::size_t> asked;    // places in passed_
  std::vector<std::size_t> replies;  // likewise
  std::uint8_t last = 0;             // of the requests that are answered so
  const Time patience = request.patience * kMicrosecondsOfMillisecond;
  const Time end = passed_.empty() ? 0 : passed_.back().time;
  std::size_t onItsWay = 0;
  for (std::size_t i = 0; i < passed_.size(); ++i) {
    const Passed& each = passed_[i];
    if (each.report.form != capture::Form::Frame || inSleep(each)) continue;
    const capture::Request* const sent = each.sent ? capture::requestOf(each.report.code) : nullptr;
    if (sent && sent->firstAnswer == request.firstAnswer) last = sent->code;
    if (sent && sent->code == request.code) {
      asked.push_back(i);
      onItsWay += end - each.time < patience ? 1 : 0;
    } else if (!each.sent && each.report.code >= request.firstAnswer && each.report.code <= request.lastAnswer &&
               last == request.code) {
      replies.push_back(i);
    }
  }
  answers.sent = asked.size();
  // Where none is missing, each answers the one whose turn it is, however late; else the one that came just before.
  const bool inTurn = replies.size() + onItsWay >= asked.size();
  std::size_t next = 0;  // the first reply that nothing is known of
  for (std::size_t k = 0; k < asked.size(); ++k) {
    const Passed& question = passed_[asked[k]];
    const std::size_t until = k + 1 < asked.size() ? asked[k + 1] : passed_.size();
    const bool answered = next < replies.size() && replies[next] > asked[k] && (inTurn || replies[next] < until);
    if (answered) {
      const Passed& reply = passed_[replies[next++]];
      answers.delays.push_back(reply.time - question.time);
      const auto& wanted = question.report.payload;
      const auto& got = reply.report.payload;
      const bool other = request.code == SetMKeyType && !wanted.empty() && !got.empty() && wanted[0] != got[0];
      if (reply.report.refuses) answers.refusal = reply.report.words;
      if (other) answers.refusal = "asked for " + question.report.words + ", and has " + reply.report.words;
    }
    // Before the next request, and what answers that is still to come.
    std::size_t more = 0;
    while (next < replies.size() && replies[next] < until) ++next, ++more;
    if (more > 0) ++answers.twice;
    if (answered || end - question.time < patience) continue;
    const bool damaged = std::any_of(passed_.begin(), passed_.end(), [&](const Passed& each) {
      return each.report.form == capture::Form::Damaged && each.time >= question.time &&
             each.time - question.time < patience;
    });
    ++(damaged ? answers.spoilt : answers.unanswered);
  }
  return answers;
}

void Judge::judgeAnswers() {
  std::string late;
  std::string twice;
  for (const capture::Request& request : capture::requests()) {
    const bool ofUpdate = request.code >= OtaPrepare && request.code <= OtaComplete;
    const bool ofMKey = request.code == GetMKeyTypeList || request.code == SetMKeyType;
    if (request.firstAnswer == 0 || ofUpdate || (ofMKey && !model_.hasMKeys)) continue;
    Answers answers = answersTo(request);
    std::sort(answers.delays.begin(), answers.delays.end());
    const std::string rule = std::string("answers ") + request.name;
    const std::string worst = answers.delays.empty() ? "" : capture::milliseconds(answers.delays.back());
    if (!answers.delays.empty() && answers.delays.back() > request.patience * kMicrosecondsOfMillisecond)
      late += (late.empty() ? "" : ", ") + fmt::format("{} after {}", request.name, worst);
    if (answers.twice > 0) twice += (twice.empty() ? "" : ", ") + std::string(request.name);
    const std::string count = std::to_string(answers.unanswered) + " of " + std::to_string(answers.sent);
    if (answers.sent == 0) {
      const auto why = untried_.find(request.code);
      skip(rule, why != untried_.end() ? why->second : sleeps_.empty() ? "it was not asked" : "it slept");
    } else if (request.code == GetDongleState && answers.delays.empty()) {
      skip(rule, "there is no receiver, or it does not answer");
    } else if (answers.spoilt > 0) {
      skip(rule, "a damaged frame came instead");
    } else if (answers.unanswered > 0) {
      add(rule, false, count + " not answered");
    } else if (!answers.refusal.empty()) {
      add(rule, false, answers.refusal);
    } else if (answers.delays.empty()) {
      skip(rule, "its answer was not waited for");
    } else {
      add(rule, true,
          "after " + capture::milliseconds(answers.delays[answers.delays.size() / 2]) + " (median), " + worst +
              " (worst)");
    }
  }
  add("answers in time", late.empty(), late);
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
      return !each.sent && each.time > sleep.from && each.time < sleep.deepest;
    });
    if (count > 0)
      return add(rule, false,
                 capture::plural(static_cast<std::size_t>(count), "report") + ", but no answer to a heartbeat");
  }
  if (!sleeps_.back().woke) return skip(rule, "it did not wake again: press one of its keys, and try once more");
  const Time slept = sleeps_.back().to - sleeps_.back().from;
  add(rule, true, fmt::format("it woke after {:.1f} s", static_cast<double>(slept) / kMicrosecondsOfSecond));
}

void Judge::judgeSpeech(const VoxSpeechCounts& counts) {
  Time opened = -1;
  Time asked = -1;
  Time closed = -kOnItsWay;  // before it is opened for the first time, too
  std::size_t unasked = 0;
  std::size_t early = 0;  // before the answer that opens the channel
  std::size_t reports = 0;
  std::size_t otherCodec = 0;
  Time first = -1;
  for (const Passed& each : passed_) {
    if (is(each, true, VoiceOpen)) asked = each.time;
    if (is(each, false, VoiceOpenReply)) {
      if (!each.report.refuses) opened = each.time;
      asked = -1;
    }
    if (is(each, true, VoiceStop)) std::tie(opened, asked, closed) = std::tuple(-1, -1, each.time + kChannelTime);
    if (is(each, false, VoiceStopReply)) std::tie(opened, closed) = std::tuple(-1, each.time);
    if (each.sent || each.report.form != capture::Form::Speech) continue;
    const bool opens = asked >= 0 && each.time - asked <= kChannelTime;
    if (opened >= 0 || opens) {
      if (first < 0) first = opened < 0 ? 0 : each.time - opened;
      ++reports;
      early += opened < 0 ? 1 : 0;
      const bool sbc = each.report.code == AudioDataWren;
      otherCodec += (model_.codec == SpeechCodec::Sbc && !sbc) || (model_.codec == SpeechCodec::Closed && sbc) ? 1 : 0;
    } else if (each.time - closed > kOnItsWay) {
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
  add("sends speech", reports > 0 && first <= kFirstSpeech,
      reports == 0 ? "none"
      : early > 0  ? capture::plural(early, "report") + " before the channel was confirmed"
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
bool maySet(const Options& options) {
  if (options.yes || !isScreen(stdin)) return options.yes;
  fmt::print(stderr, "May its DPI be set to what it is, and an M key to another function and back? [y/N] ");
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
    if (each.outcome == Outcome::passed && !each.note.empty())
      file << "<system-out>" << escaped(each.note) << "</system-out>";
    if (each.outcome == Outcome::skipped) file << "<skipped message=\"" << escaped(each.note) << "\"/>";
    file << "</testcase>\n";
  }
  file << "</testsuite>\n";
  writeOutput(path, file.str());
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

class Exercise {
 public:
  Exercise(Session& session, const Survey& survey, DeviceView device, bool sets, std::string url)
      : session_(session), survey_(survey), device_(std::move(device)), sets_(sets), url_(std::move(url)) {}

  // Asks the device for everything that changes nothing; sets what is as it was in the end, and the URL that was given.
  void run();
  // As it has presented itself meanwhile.
  std::string title() const { return fmt::format("#{} {}, {}", device_.number, device_.model, device_.link); }
  std::vector<Result> results() const;
  // What has kept it from being tried; empty: nothing.
  std::string failure() const;

 private:
  const ModelSheet& model() const;
  capture::Capture seen() const { return survey_.capture(sim::utf8(path_)); }
  bool wait(double seconds) {
    session_.runUntil(seconds, {"none"}, [] { return false; });
    return !interrupted();
  }
  // The library sets a signed one: what is larger would become another.
  bool canSetDpi() const { return device_.dpi >= 0 && device_.dpi <= std::numeric_limits<short>::max(); }
  void follow();
  bool setMKey();
  bool settled() const;

  Session& session_;
  const Survey& survey_;
  DeviceView device_;
  const bool sets_;
  const std::string url_;
  const std::wstring path_ = session_.client->pathOf(device_.number);
  VoxSpeechCounts counts_{};
};

const ModelSheet& Exercise::model() const {
  const auto sheets = ModelSheets();
  const auto model = std::find_if(sheets.begin(), sheets.end(),
                                  [&](const ModelSheet& sheet) { return sim::utf8(sheet.name) == device_.model; });
  if (model == sheets.end()) throw Failure("there are no rules for a " + device_.model);
  return *model;
}

// What it calls itself, however late: the client is told at once, or never.
void Exercise::follow() {
  const ModelSheet* const named = namedModel(seen());
  if (named && named->firmware == model().firmware) device_.model = sim::utf8(named->name);
}

// Gives the M key the next of its functions, and what it had. Nothing where it tells no list, or one function alone.
bool Exercise::setMKey() {
  CAudioHidCenter& hub = session_.client->hub();
  hub.getMKeyTypeList_Key1(device_.number);
  const auto list = session_.waitFor(kPatienceSeconds, [&](const ClientEvent& event) {
    return event.name == "mkey-list" && event.fields["device"] == device_.number;
  });
  if (interrupted()) return false;
  if (!list || !sets_) return true;
  const int had = list->fields["current"];
  for (const int other : list->fields["supported"]) {
    if (other == had) continue;
    hub.setMKeyType_Key1(device_.number, static_cast<MouseMKeyType>(other));
    hub.setMKeyType_Key1(device_.number, static_cast<MouseMKeyType>(had));
    break;
  }
  return true;
}

// Whether the last request of each kind has an answer.
bool Exercise::settled() const {
  std::map<std::uint8_t, bool> answered;  // by the first answer
  for (const Passed& each : whatPassed(seen(), model())) {
    if (each.report.form != capture::Form::Frame) continue;
    for (const capture::Request& request : capture::requests()) {
      if (request.firstAnswer == 0 || request.code == GetDongleState) continue;
      if (each.sent && each.report.code == request.code) answered[request.firstAnswer] = false;
      if (!each.sent && each.report.code >= request.firstAnswer && each.report.code <= request.lastAnswer)
        answered[request.firstAnswer] = true;
    }
  }
  return std::all_of(answered.begin(), answered.end(), [](const auto& each) { return each.second; });
}

void Exercise::run() {
  CAudioHidCenter& hub = session_.client->hub();
  const int number = device_.number;
  if (!wait(kHeartbeatSeconds)) return;
  follow();
  hub.GetMouseState(number);
  hub.GetDongleState(number);
  if (!wait(kPatienceSeconds) || (model().hasMKeys && !setMKey())) return;
  if (canSetDpi() && sets_) {
    hub.SetDpi(number, static_cast<short>(device_.dpi));
    if (!wait(kPatienceSeconds)) return;
  }
  if (!url_.empty()) {
    std::vector<unsigned char> bytes(url_.begin(), url_.end());  // replaced by the codes that are sent
    hub.SetDownloadURL(number, bytes.data(), static_cast<int>(bytes.size()));
    if (!wait(kPatienceSeconds)) return;
  }
  hub.ChooseWorkHidDevice(number);
  const bool goesOn = !hub.OpenHidRecord() || wait(kSpeechSeconds);
  hub.CloseHidRecord();  // a device that has not confirmed may have opened its channel all the same
  session_.client->takeAudio();
  hub.GetSpeechCounts(number, counts_);
  if (!goesOn || !wait(kPatienceSeconds)) return;
  for (int i = 0; i < kSettleSeconds && !settled(); ++i) {
    if (!wait(1)) return;
  }
  follow();
}

std::string Exercise::failure() const {
  const capture::Capture capture = seen();
  const bool gone = std::any_of(capture.events.begin(), capture.events.end(), [](const capture::Event& event) {
    return event.kind == capture::Kind::ReadFailed && event.error != kCancelled;
  });
  return gone ? title() + " went away while it was tried: plug it in, and try again" : "";
}

std::vector<Result> Exercise::results() const {
  std::map<std::uint8_t, std::string> untried;
  const std::string allowed = "it would write a setting; --yes allows it";
  if (!sets_) untried = {{SetDpi, allowed}, {SetMKeyType, allowed}};
  if (!canSetDpi()) untried[SetDpi] = "its DPI is not one that can be set";
  if (sets_) untried[SetMKeyType] = "it told no other function";
  untried[SetDownloadUrl] =
      url_.empty() ? "its URL would be lost; --url URL sends another" : "it does not fit into a report of this device";
  const ModelSheet& sheet = model();
  if (sheet.firmware == FirmwareFamily::Tern) untried[Identify] = "this model is not asked";
  if (interrupted()) {
    for (const capture::Request& request : capture::requests()) untried.emplace(request.code, "interrupted before");
  }
  return Judge(whatPassed(seen(), sheet), sheet, std::move(untried)).judge(counts_);
}

}  // namespace

void conform(const Options& options) {
  checkOutput(options.junit);
  checkUrl(options.url);
  Survey survey;
  Session session(options, false, &survey);
  session.discover({"none"});
  const DeviceView device = session.choose(options.device);
  Exercise exercise(session, survey, device, maySet(options), options.url);
  session.terminal.say("Trying " + exercise.title() + "; this takes about 15 s.");
  exercise.run();
  if (const std::string why = exercise.failure(); !why.empty()) throw Failure(why);
  const std::vector<Result> results = exercise.results();
  const std::string title = exercise.title();
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
  Session::failIfInterrupted("before all rules were tried");
  session.finish();
  if (failed > 0) throw Failure(title + " breaks " + capture::plural(failed, "rule"));
}
