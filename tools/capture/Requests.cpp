#include <algorithm>
#include <utility>

#include "hid/HidFrame.h"
#include "tools/capture/Chapters.h"

namespace capture {
namespace {

bool isRoutine(std::uint8_t command) { return command == Heartbeat || command == OtaData; }

}  // namespace

void Requests::pass(const Passed& passed) {
  if (passed.sent) {
    const Request* request = requestOf(passed.report.code);
    if (!request) return;
    RequestCount& count = counts_[request->code];
    count.name = request->name;
    ++count.sent;
    if (request->firstAnswer == 0) return;
    if (const auto before = waiting_.find(request->code); before != waiting_.end()) giveUp(*request, before->second);
    waiting_[request->code] = {passed.frame, passed.time, passed.report.receiver};
    return;
  }
  for (const Request& request : requests()) {
    if (passed.report.code < request.firstAnswer || passed.report.code > request.lastAnswer) continue;
    const auto asked = waiting_.find(request.code);
    if (asked == waiting_.end()) continue;
    answer(request, asked->second, passed);
    waiting_.erase(asked);
    return;
  }
}

void Requests::answer(const Request& request, const Waiting& asked, const Passed& passed) {
  const Time delay = std::max<Time>(0, passed.time - asked.time);
  RequestCount& count = counts_[request.code];
  ++count.answered;
  count.delays.push_back(delay);
  Frame& question = story_.frames[asked.frame];
  Frame& reply = story_.frames[passed.frame];
  question.note = "answered after " + milliseconds(delay);
  reply.note = std::string("answers ") + request.name + " after " + milliseconds(delay);
  const bool slow = delay > story_.slow;
  if (slow)
    story_.note(asked.time, device_, "slow", std::string(request.name) + " answered after " + milliseconds(delay));
  question.routine = reply.routine = isRoutine(request.code) && !slow && !passed.report.refuses;
  if (request.code == Heartbeat) endSilence();
}

void Requests::giveUp(const Request& request, const Waiting& asked) {
  ++counts_[request.code].unanswered;
  story_.frames[asked.frame].note = "no answer";
  if (request.code == Heartbeat) {
    heartbeats_.push_back(asked.frame);
  } else if (asked.receiver) {
    ofReceiver_.push_back(asked.frame);
  } else {
    story_.frames[asked.frame].wrong = true;
    story_.note(asked.time, device_, "silence", std::string(request.name) + ": no answer");
  }
}

void Requests::endSilence() {
  if (heartbeats_.empty()) return;
  for (const std::size_t frame : heartbeats_) story_.frames[frame].wrong = true;
  story_.note(story_.frames[heartbeats_.front()].time, device_, "silence",
              plural(heartbeats_.size(), "heartbeat") + " unanswered", story_.frames[heartbeats_.back()].time);
  heartbeats_.clear();
}

void Requests::notWritten(std::size_t frame) {
  std::erase_if(waiting_, [frame](const auto& each) { return each.second.frame == frame; });
}

void Requests::forget() {
  endSilence();
  waiting_.clear();
}

void Requests::end(Time time, std::map<std::uint8_t, RequestCount>& counts) {
  for (const auto& [code, asked] : waiting_) {
    const Request& request = *requestOf(code);
    if (time - asked.time >= Time{request.patience} * 1000) giveUp(request, asked);
  }
  forget();
  // Where nobody answers for a receiver, there is none.
  if (story_.devices[device_].receiver) {
    for (const std::size_t frame : ofReceiver_) {
      story_.frames[frame].wrong = true;
      story_.note(story_.frames[frame].time, device_, "silence",
                  story_.frames[frame].name + ": no answer of the receiver");
    }
  }
  for (auto& [code, count] : counts_) {
    RequestCount& all = counts[code];
    all.name = count.name;
    all.sent += count.sent;
    all.answered += count.answered;
    all.unanswered += count.unanswered;
    all.delays.insert(all.delays.end(), count.delays.begin(), count.delays.end());
  }
}

}  // namespace capture
