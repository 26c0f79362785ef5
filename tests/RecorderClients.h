// Clients of a recorder at random: threads that call anything on objects that they share, copy, assign and destroy.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/os.h"
#include "tests/Desk.h"
#include "tools/explore/Explore.h"

// What has been delivered to a client.
struct Deliveries {
  static void onData(const char* data, int byteCount, void* self) {
    auto& [sizes, heard] = *static_cast<Deliveries*>(self);
    sizes.push_back(data ? byteCount : 0);
    if (!data) return;
    const std::size_t at = heard.size();
    heard.resize(at + static_cast<std::size_t>(byteCount) / 2);
    std::memcpy(heard.data() + at, data, static_cast<std::size_t>(byteCount));
  }
  std::vector<int> sizes;  // 0 is an end mark
  std::vector<std::int16_t> heard;
};

// A callback that does not return for so long, while the recorder is destroyed. The desk owns the recorder.
template <class RecorderDesk>
void aCallbackIsKept(RecorderDesk& desk, DWORD milliseconds) {
  struct Slow {
    const DWORD time;
    bool finished = false;
  } slow{milliseconds};
  const auto onData = [](const char*, int, void* context) {
    auto& [time, finished] = *static_cast<Slow*>(context);
    os::Sleep(time);
    finished = true;
  };
  desk.recorder->Init(reinterpret_cast<void*>(+onData), &slow);
  ASSERT_EQ(desk.recorder->StartRecord(), 1);
  desk.run(300ms);
  EXPECT_LE(timeOf(desk, [&] { desk.recorder.reset(); }), kBound);
  EXPECT_EQ(slow.finished, milliseconds < kBound);
  EXPECT_EQ(desk.machine.forcedEnds(), milliseconds < kBound ? 0U : 1U);
  desk.run(10ms);  // the device is closed by now
}

// The recorder is destroyed while its driver does not come back from this call: of a recording that runs, or of another
// client's that just starts or stops one.
template <class RecorderDesk>
void aCallIsKept(RecorderDesk& desk, const char* call, bool runs = false) {
  auto* recorder = desk.recorder.get();
  desk.machine.faults().stall(call, 10s);
  auto client = desk.machine.spawn([&] {
    if (runs) return;
    recorder->StartRecord();
    if (desk.recorder) recorder->StopRecord();
  });
  desk.run(100ms);
  EXPECT_LE(timeOf(desk, [&] { const auto going = std::move(desk.recorder); }), kBound);
  desk.machine.faults().repair();
  client.join();
  EXPECT_EQ(desk.sizes, std::vector<int>{});
}

// Records, and calls `action` inside the first delivery, or inside the end mark of a stop on this thread.
template <class RecorderDesk>
void actInACallback(RecorderDesk& desk, bool atMark, void (*action)(RecorderDesk&)) {
  struct Context {
    RecorderDesk& desk;
    const DWORD thread;
    void (*action)(RecorderDesk&);
  } context{desk, atMark ? os::GetCurrentThreadId() : 0, action};
  const auto onData = [](const char* data, int byteCount, void* argument) {
    auto& it = *static_cast<Context*>(argument);
    Deliveries::onData(data, byteCount, static_cast<Deliveries*>(&it.desk));
    if (!it.action || (it.thread != 0 ? data || os::GetCurrentThreadId() != it.thread : !data)) return;
    EXPECT_LE(timeOf(it.desk, [&] { std::exchange(it.action, nullptr)(it.desk); }), 20);
  };
  desk.recorder->Init(reinterpret_cast<void*>(+onData), &context);
  ASSERT_EQ(desk.recorder->StartRecord(), 1);
  if (atMark) desk.recorder->StopRecord();
  desk.run(300ms);
  if (desk.recorder) desk.recorder->Init(nullptr, nullptr);
}

template <class Recorder>
class RecorderClients {
 public:
  using Operation = std::function<void(Recorder&)>;

  // more: operations that only this kind of recorder has. calls: of its driver, which fail and stall at random.
  RecorderClients(Desk& desk, Trial& random, std::vector<Operation> more, std::vector<const char*> calls)
      : desk_(desk),
        random_(random),
        bound_(kBound + (random.coarse() ? 32 : 5)),
        more_(std::move(more)),
        calls_(std::move(calls)) {}

  // Returns when every object has gone and whatever a driver has kept has come back.
  void run() {
    current() = this;
    for (auto& object : objects_) create(object);
    std::vector<sim::Machine::Spawned> clients;
    for (std::uint64_t i = 0, count = 2 + below(2); i < count; ++i) {
      clients.push_back(desk_.machine.spawn([this] {
        for (int n = 0; n < 12; ++n) {
          desk_.run(std::chrono::milliseconds(below(250)));
          act();
        }
      }));
    }
    sim::Time stalls{0}, kept{0};  // how long a driver keeps a call now; until when it may keep one
    const auto repair = [&] {
      kept = std::max(kept, desk_.machine.now() + std::exchange(stalls, sim::Time{0}));
      desk_.machine.faults().repair();
    };
    for (int n = 0; n < 4; ++n) {
      desk_.run(std::chrono::milliseconds(below(700)));
      const char* call = calls_[below(calls_.size())];
      switch (below(4)) {
        case 0:
          // Where there is no thread to leave it to, a driver that stalls, or still does, keeps who destroys.
          if (std::string(call) == "_beginthreadex") {
            repair();
            if (desk_.machine.now() < kept) break;
          }
          desk_.machine.faults().fail(call, -1, static_cast<int>(below(4)));
          break;
        case 1:
          repair();
          stalls = std::chrono::milliseconds(below(5000));
          desk_.machine.faults().stall(call, stalls);
          break;
        default:
          repair();
      }
    }
    if (below(2) == 0) {
      for (auto& client : clients) client.join();
    }
    for (auto& object : objects_) destroy(object);
    ended_ = true;
    for (auto& client : clients) client.join();
    for (auto& object : objects_) destroy(object);
    desk_.machine.faults().repair();
    // A copy that lives in a callback, which a driver keeps.
    EXPECT_TRUE(desk_.machine.waitFor([this] { return acting_ == 0; }, 10s));
    const auto said = deliveries_;
    desk_.run(30s);
    EXPECT_EQ(deliveries_, said) << "nothing is delivered any more";
    EXPECT_EQ(desk_.machine.balance().threads, 0U) << desk_.machine.waiting();
    EXPECT_EQ(desk_.machine.forcedEnds(), 0U);
  }

 private:
  static RecorderClients*& current() {
    static RecorderClients* clients;
    return clients;
  }
  static void onData(const char* data, int byteCount, void*) {
    RecorderClients& self = *current();
    ++self.deliveries_;
    unsigned sum = 0;
    for (int i = 0; data && i < byteCount; ++i) sum += static_cast<unsigned char>(data[i]);
    self.sum_ += sum;
    const auto choice = self.below(24);
    if (choice == 0) self.act();
    if (choice == 1) desk(self).run(std::chrono::milliseconds(self.below(300)));
  }
  static Desk& desk(RecorderClients& self) { return self.desk_; }
  std::size_t below(std::size_t limit) { return random_.below(limit); }

  void create(std::unique_ptr<Recorder>& object) {
    auto made = std::make_unique<Recorder>();
    made->Init(reinterpret_cast<void*>(&onData), nullptr);
    if (!object && !ended_) object = std::move(made);
  }
  void destroy(std::unique_ptr<Recorder>& object) {
    auto going = std::move(object);  // who looks at it now finds none
    const auto began = desk_.milliseconds();
    going.reset();
    EXPECT_LE(desk_.milliseconds() - began, bound_);
  }
  void act() {
    ++acting_;
    operate();
    --acting_;
  }
  void operate() {
    auto& object = objects_[below(objects_.size())];
    Recorder* recorder = object.get();
    if (!recorder) return create(object);
    Recorder* other = objects_[below(objects_.size())].get();
    switch (below(12)) {
      case 0:
        recorder->Init(reinterpret_cast<void*>(&onData), nullptr);
        break;
      case 1:
        destroy(object);
        break;
      case 2:
        if (other) *recorder = *other;
        break;
      case 10: {
        Recorder copy;
        if (Recorder* now = object.get()) copy = *now;  // no call begins on one that is going
        copy.StopRecord();
        break;
      }
      case 3:
      case 4:
        more_[below(more_.size())](*recorder);
        break;
      case 5:
      case 6:
      case 7:
        recorder->StopRecord();
        break;
      default:
        recorder->StartRecord();
    }
  }

  Desk& desk_;
  Trial& random_;
  const std::int64_t bound_;
  const std::vector<Operation> more_;
  const std::vector<const char*> calls_;
  std::array<std::unique_ptr<Recorder>, 3> objects_;
  bool ended_ = false;
  int acting_ = 0;  // operations in progress
  std::uint64_t deliveries_ = 0;
  std::uint64_t sum_ = 0;  // of what has been read: it must be there
};
