// The main program of the tests. With --explore it searches the schedules of a scenario on every core: each run is one
// of a child process, so that whatever ends it (a sanitizer, a machine that is stuck, an endless loop) is one more
// failure that can be made small and repeated.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <regex>
#include <sstream>
#include <thread>

#include "support/Probe.h"
#include "tools/explore/Explore.h"
#include "tools/explore/Picture.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostProbes = 128;
// A run that takes longer does not come back.
constexpr auto kLongestRun = 60s;

// What the processes share.
struct Common {
  std::atomic<std::uint64_t> next{0};  // seed
  std::atomic<std::uint64_t> done{0};  // runs
  std::atomic<std::uint64_t> points{0};
  std::array<std::atomic<std::uint64_t>, kMostProbes> probes{};
};
// What one child works on.
struct Work {
  std::atomic<std::uint64_t> seed{0};
  std::atomic<std::int64_t> began{0};  // ns of the steady clock
  sim::Journal journal;
};

template <class T>
T& sharedMemory() {
  void* memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  return *new (memory) T;
}

// A run: of a seed, or the given one.
struct Case {
  std::string scenario;
  std::uint64_t seed = 0;
  std::vector<std::uint32_t> draws;
  sim::Schedule schedule;

  std::size_t size() const {
    return schedule.size() +
           static_cast<std::size_t>(std::count_if(draws.begin(), draws.end(), [](auto value) { return value != 0; }));
  }
};

const Scenario& scenarioOf(const std::string& name) {
  for (const Scenario* scenario : Scenario::all()) {
    if (scenario->name == name) return *scenario;
  }
  std::string known;
  for (const Scenario* scenario : Scenario::all()) known += " " + scenario->name;
  throw std::runtime_error("no scenario \"" + name + "\"; this program has:" + known);
}

void write(const Case& it, const std::string& file) {
  std::ofstream out(file);
  out << "scenario " << it.scenario << "\nseed " << it.seed << "\n# What happened, as numbers that were drawn.\ndraws";
  for (const auto value : it.draws) out << ' ' << value;
  out << "\n# Which thread, at which of its points, let which other go first (-n: the n-th timer that was due).\n";
  for (const auto& choice : it.schedule) {
    out << "choice " << choice.thread << ' ' << choice.point << ' ' << choice.next << '\n';
  }
  if (!out.flush()) throw std::runtime_error("cannot write " + file);
}

Case read(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot read " + file);
  Case it;
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string what;
    words >> what;
    if (what == "scenario") words >> it.scenario;
    if (what == "seed") words >> it.seed;
    if (what == "draws") {
      for (std::uint32_t value = 0; words >> value;) it.draws.push_back(value);
    }
    sim::Choice choice;
    if (what == "choice" && words >> choice.thread >> choice.point >> choice.next) it.schedule.push_back(choice);
  }
  scenarioOf(it.scenario);
  return it;
}

// How a run has failed, in a line that another run which fails the same way has, too.
std::string failureOf(int status, const std::string& output) {
  static const std::regex signs[] = {
      std::regex("SUMMARY: \\w+: ([^\\n]*)"),
      std::regex("runtime error: [^\\n]*"),
      std::regex("sim: the machine is stuck at \\d+ ms: ([^\\n]*)"),
      std::regex("([\\w/.]+:\\d+): Failure"),
      std::regex("terminate called [^\\n]*"),
  };
  for (const auto& sign : signs) {
    std::smatch found;
    if (std::regex_search(output, found, sign)) return found[found.size() - 1];
  }
  if (WIFSIGNALED(status)) return WTERMSIG(status) == SIGKILL ? "does not come back" : strsignal(WTERMSIG(status));
  return WEXITSTATUS(status) == 0 ? "" : "exit code " + std::to_string(WEXITSTATUS(status));
}

class Child {
 public:
  // Runs `body` in a process of its own, which ends with its result; what it prints is kept.
  explicit Child(const std::function<int()>& body) : output_(std::tmpfile()) {
    std::fflush(nullptr);
    id_ = fork();
    if (id_ < 0) throw std::runtime_error("no process can be started");
    if (id_ != 0) return;
    dup2(fileno(output_), 1);
    dup2(fileno(output_), 2);
    const int result = body();
    std::fflush(nullptr);
    _exit(result);
  }
  ~Child() {
    if (id_ > 0) kill(), wait(0);
    std::fclose(output_);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void kill() const { ::kill(id_, SIGKILL); }
  // True when it has ended.
  bool wait(int flags) {
    if (id_ > 0 && waitpid(id_, &status_, flags) == id_) id_ = 0;
    return id_ == 0;
  }
  // Null when it has ended well.
  std::string failure() const { return failureOf(status_, output()); }
  std::string output() const {
    std::string text;
    std::rewind(output_);
    char part[4096];
    while (const std::size_t count = std::fread(part, 1, sizeof part, output_)) text.append(part, count);
    return text;
  }

 private:
  std::FILE* output_;
  pid_t id_ = 0;
  int status_ = 0;
};

int runOnce(Trial& run, const Scenario& scenario) {
  scenario.run(run);
  return ::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}

std::string outcome(const Case& it, std::string* output = nullptr, const std::string& logFile = {}) {
  Child child([&] {
    Trial run(it.seed, it.draws, it.schedule, nullptr);
    run.machine.logFile = logFile;
    return runOnce(run, scenarioOf(it.scenario));
  });
  const auto end = Clock::now() + kLongestRun;
  while (!child.wait(WNOHANG)) {
    if (Clock::now() > end) child.kill();
    std::this_thread::sleep_for(200us);
  }
  if (output) *output = child.output();
  return child.failure();
}

// Leaves out what the failure does not need: first half of it, then a quarter ...
template <class Apply>
bool leaveOut(std::size_t count, const Apply& without) {
  bool smaller = false;
  for (std::size_t part = std::max<std::size_t>(1, count / 2);; part /= 2) {
    for (std::size_t at = 0; at < count;) {
      if (const std::size_t gone = without(at, part)) {
        count -= gone;
        smaller = true;
      } else {
        at += part;
      }
    }
    if (part <= 1) return smaller;
  }
}

Case shrink(Case it, const std::string& failure) {
  const auto began = Clock::now();
  const auto fails = [&](const Case& smaller) { return outcome(smaller) == failure; };
  bool again = true;
  while (again && Clock::now() - began < 10min) {
    std::printf("\r%zu choices, %zu draws that are not zero   ", it.schedule.size(), it.size() - it.schedule.size());
    std::fflush(stdout);
    again = leaveOut(it.schedule.size(), [&](std::size_t at, std::size_t part) -> std::size_t {
      Case smaller = it;
      part = std::min(part, it.schedule.size() - at);
      const auto from = smaller.schedule.begin() + static_cast<std::ptrdiff_t>(at);
      smaller.schedule.erase(from, from + static_cast<std::ptrdiff_t>(part));
      if (!fails(smaller)) return 0;
      it = std::move(smaller);
      return part;
    });
    // A number that is left out becomes zero.
    std::vector<std::size_t> set;
    for (std::size_t i = 0; i < it.draws.size(); ++i) {
      if (it.draws[i] != 0) set.push_back(i);
    }
    again |= leaveOut(set.size(), [&](std::size_t at, std::size_t part) -> std::size_t {
      Case smaller = it;
      part = std::min(part, set.size() - at);
      for (std::size_t i = at; i < at + part; ++i) smaller.draws[set[i]] = 0;
      if (!fails(smaller)) return 0;
      it = std::move(smaller);
      const auto from = set.begin() + static_cast<std::ptrdiff_t>(at);
      set.erase(from, from + static_cast<std::ptrdiff_t>(part));
      return part;
    });
  }
  while (!it.draws.empty() && it.draws.back() == 0) it.draws.pop_back();
  std::printf("\r%zu choices, %zu draws that are not zero, in %lld s\n", it.schedule.size(),
              it.size() - it.schedule.size(),
              static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began).count()));
  return it;
}

struct Options {
  std::string scenario;
  std::string replay;
  std::string strategy;
  std::string picture;
  std::uint64_t from = 1;
  std::uint64_t seeds = 0;
  double minutes = 0;
  unsigned jobs = std::max(1U, std::thread::hardware_concurrency());
  bool shrink = false;
};

class Explorer {
 public:
  Explorer(const Options& options, const Scenario& scenario) : options_(options), scenario_(scenario) {
    common_.next = options.from;
    for (unsigned i = 0; i < options.jobs; ++i) works_.push_back(&sharedMemory<Work>());
  }

  // 0: no run has failed, and every probe was reached.
  int run() {
    std::vector<std::unique_ptr<Child>> children;
    for (Work* work : works_) {
      children.push_back(std::make_unique<Child>([this, work] { return search(*work); }));
    }
    std::string failure;
    std::size_t which = 0;
    for (auto shown = Clock::now();;) {
      std::this_thread::sleep_for(5ms);
      std::size_t ended = 0;
      for (std::size_t i = 0; i < children.size() && failure.empty(); ++i) {
        const std::int64_t began = works_[i]->began;  // read once: between two runs it is zero
        const Clock::duration since(Clock::now().time_since_epoch().count() - began);
        if (began != 0 && since > kLongestRun) children[i]->kill();
        if (!children[i]->wait(WNOHANG)) continue;
        ++ended;
        failure = children[i]->failure();
        which = i;
      }
      if (Clock::now() - shown > 1s) {
        shown = Clock::now();
        say(isatty(1) ? '\r' : '\n');
      }
      if (!failure.empty() || ended == children.size()) break;
    }
    say('\n');
    if (failure.empty()) return probes();
    const std::string output = children[which]->output();
    children.clear();
    return report(*works_[which], failure, output);
  }

 private:
  int search(Work& work) {
    const auto end = began_ + std::chrono::duration<double, std::ratio<60>>(options_.minutes);
    for (;;) {
      if (options_.minutes > 0 && Clock::now() > end) return 0;
      const std::uint64_t seed = common_.next++;
      if (options_.seeds > 0 && seed >= options_.from + options_.seeds) return 0;
      if (!options_.strategy.empty() && (options_.strategy == "priorities") != (seed % 2 == 0)) continue;
      work.journal.choices = work.journal.draws = 0;
      work.journal.complete = true;
      work.seed = seed;
      work.began = Clock::now().time_since_epoch().count();
      std::fflush(nullptr);
      if (ftruncate(1, 0) != 0 || lseek(1, 0, SEEK_SET) != 0) return 2;
      Trial run(seed, sim::Clock::virtualTime, &work.journal);
      const int failed = runOnce(run, scenario_);
      std::size_t index = 0;
      for (ProbeSite* site = ProbeSite::first; site && index < kMostProbes; site = site->next, ++index) {
        common_.probes[index] += std::exchange(site->reached, 0);
      }
      common_.points += work.journal.points;
      ++common_.done;
      work.began = 0;
      if (failed) return 1;
    }
  }
  void say(char ending) const {
    const double seconds = std::chrono::duration<double>(Clock::now() - began_).count();
    std::printf("%s: %llu schedules, %.0f a second; %.1f million points%c", scenario_.name.c_str(),
                static_cast<unsigned long long>(common_.done), static_cast<double>(common_.done) / seconds,
                static_cast<double>(common_.points) / 1e6, ending);
    std::fflush(stdout);
  }
  int probes() const {
    int missing = 0;
    std::size_t index = 0;
    for (ProbeSite* site = ProbeSite::first; site && index < kMostProbes; site = site->next, ++index) {
      const std::string name = site->name;
      const std::string subject = name.substr(0, name.find(':'));
      if ((" " + scenario_.probes + " ").find(" " + subject + " ") == std::string::npos) continue;
      const std::uint64_t times = common_.probes[index];
      std::printf("  %10llu  %s\n", static_cast<unsigned long long>(times), name.c_str());
      missing += times == 0;
    }
    if (missing != 0) std::printf("%d of these were not reached\n", missing);
    return missing == 0 ? 0 : 1;
  }
  int report(const Work& work, const std::string& failure, const std::string& output) const {
    Case it{scenario_.name, work.seed, {}, {}};
    const sim::Journal& journal = work.journal;
    it.draws.assign(journal.draw.begin(), journal.draw.begin() + static_cast<std::ptrdiff_t>(journal.draws));
    it.schedule.assign(journal.choice.begin(), journal.choice.begin() + static_cast<std::ptrdiff_t>(journal.choices));
    std::printf("%s\nseed %llu fails: %s\n", output.c_str(), static_cast<unsigned long long>(it.seed), failure.c_str());
    if (!journal.complete) std::printf("the run was too long to be kept whole\n");
    if (const std::string again = outcome(it); again != failure) {
      std::printf("repeated, it fails otherwise: %s\n", again.empty() ? "not at all" : again.c_str());
    } else if (options_.shrink) {
      it = shrink(it, failure);
    }
    const std::string file = scenario_.name + "-" + std::to_string(it.seed) + ".schedule";
    write(it, file);
    std::printf("To repeat it: this program with --replay %s%s\n", file.c_str(),
                options_.shrink ? "" : "; to make it small, --replay with --shrink");
    return 1;
  }

  const Options& options_;
  const Scenario& scenario_;
  const Clock::time_point began_ = Clock::now();
  Common& common_ = sharedMemory<Common>();
  std::vector<Work*> works_;
};

int replay(const Options& options) {
  Case it = read(options.replay);
  std::string output;
  const std::string failure = outcome(it, &output);
  if (options.shrink && !failure.empty()) {
    it = shrink(it, failure);
    write(it, options.replay);
    outcome(it, &output);
  }
  if (!options.picture.empty()) {
    const std::string logFile = options.picture + ".log";
    outcome(it, nullptr, logFile);
    std::stringstream log;
    log << std::ifstream(logFile).rdbuf();
    if (!(std::ofstream(options.picture) << picture(options.replay, log.str()))) {
      throw std::runtime_error("cannot write " + options.picture);
    }
    std::printf("%s shows it; %s is the log\n", options.picture.c_str(), logFile.c_str());
  }
  std::printf("%s%s: %s\n", output.c_str(), options.replay.c_str(),
              failure.empty() ? "does not fail" : ("fails: " + failure).c_str());
  return failure.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (argc == 1) return RUN_ALL_TESTS();
  CLI::App app("The tests of VoxDevice; see also --gtest_help. With --explore, a search for schedules that fail.");
  Options options;
  auto* explore = app.add_option("--explore", options.scenario, "search the schedules of this scenario");
  auto* again = app.add_option("--replay", options.replay, "repeat the run in this file")->excludes(explore);
  app.add_option("--seeds", options.seeds, "so many of them (1000, unless --minutes says otherwise)");
  app.add_option("--from", options.from, "the first of them")->capture_default_str();
  app.add_option("--minutes", options.minutes, "until so much time has passed");
  app.add_option("--strategy", options.strategy, "only this one of the two: every other seed")
      ->check(CLI::IsMember({"shuffle", "priorities"}));
  app.add_option("--jobs", options.jobs, "processes at a time")->capture_default_str()->check(CLI::Range(1, 256));
  app.add_option("--picture", options.picture,
                 "with --replay: a page to look at, with a lane for each thread and device")
      ->needs(again);
  app.add_flag("--shrink", options.shrink, "leave out of a run that fails what it does not need");
  CLI11_PARSE(app, argc, argv);
  if (options.seeds == 0 && options.minutes <= 0) options.seeds = 1000;
  try {
    if (!options.replay.empty()) return replay(options);
    return Explorer(options, scenarioOf(options.scenario)).run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
