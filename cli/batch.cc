// Several documents into a folder. Each document is converted in a worker
// process of its own, so that one that crashes the filter or never ends
// costs only itself: the parent keeps up to -j workers running, kills a
// worker after --timeout, and tells how every document ended.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string_view>

#include "kln2txt.h"

namespace kln2txt {

namespace {

using Clock = std::chrono::steady_clock;

// A worker ends with this status plus its Outcome; anything else means it
// did not get to the end of its document.
constexpr int kWorkerExitBase = 64;

struct Job {
  std::string input, output;
};

struct Worker {
  pid_t pid;
  size_t job;
  Clock::time_point started;
  bool killed = false;  // for running past --timeout
};

std::string BaseName(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The file name without its extension: "letter.kln" -> "letter".
std::string Stem(const std::string &path) {
  const std::string base = BaseName(path);
  const size_t dot = base.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? base : base.substr(0, dot);
}

// DIR/NAME.ext for every input; a name met before becomes NAME-2, NAME-3, …
std::vector<Job> PlanJobs(const Settings &s) {
  const char *ext = s.json ? ".json" : ".txt";
  std::set<std::string> taken;
  std::vector<Job> jobs;
  for (const std::string &input : s.files) {
    const std::string stem = Stem(input);
    std::string name = stem + ext;
    for (unsigned n = 2; !taken.insert(name).second; ++n) name = stem + "-" + std::to_string(n) + ext;
    jobs.push_back({input, s.outDir + "/" + name});
  }
  return jobs;
}

}  // namespace

void InjectTestFault(const std::string &input) {
  const char *fault = std::getenv("KLN2TXT_TEST_FAULT");
  if (!fault) return;
  const std::string_view f(fault);
  const size_t colon = f.find(':');
  if (colon == std::string_view::npos || f.substr(colon + 1) != BaseName(input)) return;
  if (f.substr(0, colon) == "crash") {
    signal(SIGSEGV, SIG_DFL);  // past any sanitizer's handler
    raise(SIGSEGV);
  } else if (f.substr(0, colon) == "hang") {
    for (;;) pause();
  }
}

namespace {

[[noreturn]] void RunWorker(const Settings &s, const Job &job, const sigset_t &mask) {
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  InjectTestFault(job.input);
  int code = 0;
  const Outcome outcome = ConvertDocument(s, job.input, job.output, code);
  std::fflush(nullptr);
  _exit(kWorkerExitBase + static_cast<int>(outcome));
}

// How a worker ended, from its wait status.
Outcome WorkerOutcome(const Worker &w, int status, unsigned timeoutSeconds, std::string &detail) {
  if (w.killed) {
    detail = "after " + std::to_string(timeoutSeconds) + " s";
    return Outcome::kTimedOut;
  }
  if (WIFSIGNALED(status)) {
    detail = "signal " + std::to_string(WTERMSIG(status)) + ", " + strsignal(WTERMSIG(status));
    return Outcome::kCrashed;
  }
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) - kWorkerExitBase : -1;
  if (code >= 0 && code < kOutcomeCount) return static_cast<Outcome>(code);
  detail = "exit status " + std::to_string(WEXITSTATUS(status));
  return Outcome::kWorkerLost;
}

// Counts of outcomes, written as the closing summary.
class Summary {
 public:
  void add(Outcome o) { ++counts_[static_cast<int>(o)]; }
  void write(size_t total) const {
    std::string failed;
    size_t failures = 0;
    for (int i = 0; i < kOutcomeCount; ++i) {
      const Outcome o = static_cast<Outcome>(i);
      if (ExitStatusOf(o) != kExitFailed || counts_[i] == 0) continue;
      failures += counts_[i];
      failed += std::string(failed.empty() ? " (" : ", ") + std::to_string(counts_[i]) + " " + OutcomeText(o);
    }
    if (!failed.empty()) failed += ")";
    std::fprintf(stderr,
                 "kln2txt: %zu document%s: %zu converted, %zu without text, %zu cut at the size limit, %zu failed%s\n",
                 total, total == 1 ? "" : "s", count(Outcome::kConverted), count(Outcome::kEmpty), count(Outcome::kCut),
                 failures, failed.c_str());
  }

 private:
  size_t count(Outcome o) const { return counts_[static_cast<int>(o)]; }
  size_t counts_[kOutcomeCount] = {};
};

// The progress line on standard error, kept only when that is a terminal.
class Progress {
 public:
  explicit Progress(size_t total) : total_(total), shown_(isatty(STDERR_FILENO) == 1) {}
  void show(size_t done, const std::string &current) const {
    if (shown_) std::fprintf(stderr, "\r\033[K[%zu/%zu] %s", done, total_, current.c_str());
  }
  void clear() const {
    if (shown_) std::fputs("\r\033[K", stderr);
  }

 private:
  size_t total_;
  bool shown_;
};

// Runs the jobs, at most settings.jobs at a time, and tells how each ended.
class Batch {
 public:
  Batch(const Settings &s, std::vector<Job> jobs) : s_(s), jobs_(std::move(jobs)), progress_(jobs_.size()) {}

  // Answers the gravest exit status of the documents.
  int run() {
    // SIGCHLD stays pending while blocked, so that waitForWorker wakes up
    // for a worker that ended at any time since the last look.
    sigemptyset(&childEnded_);
    sigaddset(&childEnded_, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childEnded_, &callerMask_);
    while (next_ < jobs_.size() || !running_.empty()) {
      const bool started = startWorkers();
      const bool reaped = reapWorkers();
      if ((started || reaped) && !running_.empty()) progress_.show(done_, BaseName(jobs_[running_.front().job].input));
      if (!reaped && !running_.empty()) waitForWorker();
    }
    sigprocmask(SIG_SETMASK, &callerMask_, nullptr);
    progress_.clear();
    summary_.write(jobs_.size());
    return status_;
  }

 private:
  // Sleeps until a worker ends, the first running worker's --timeout
  // passes, or a second has gone by.
  void waitForWorker() const {
    auto wait = std::chrono::nanoseconds(std::chrono::seconds(1));
    if (s_.timeoutSeconds) {
      for (const Worker &w : running_) {
        if (w.killed) continue;
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
            w.started + std::chrono::seconds(s_.timeoutSeconds) - Clock::now());
        wait = std::max(std::chrono::nanoseconds(0), std::min(wait, left));
      }
    }
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(wait.count() / 1000000000);
    ts.tv_nsec = static_cast<long>(wait.count() % 1000000000);
    sigtimedwait(&childEnded_, nullptr, &ts);
  }

  bool startWorkers() {
    const size_t first = next_;
    for (; running_.size() < s_.jobs && next_ < jobs_.size(); ++next_) {
      std::fflush(nullptr);  // nothing buffered may be written twice
      const pid_t pid = fork();
      if (pid == 0) RunWorker(s_, jobs_[next_], callerMask_);
      if (pid < 0)
        finish(next_, Outcome::kWorkerLost, std::string("cannot start a worker: ") + std::strerror(errno));
      else
        running_.push_back({pid, next_, Clock::now()});
    }
    return next_ != first;
  }

  // Collects the workers that ended; kills those past --timeout (they are
  // collected on a later round).
  bool reapWorkers() {
    bool reaped = false;
    const auto timeout = std::chrono::seconds(s_.timeoutSeconds);
    for (auto w = running_.begin(); w != running_.end();) {
      int wstatus = 0;
      if (waitpid(w->pid, &wstatus, WNOHANG) == w->pid) {
        std::string detail;
        const Outcome outcome = WorkerOutcome(*w, wstatus, s_.timeoutSeconds, detail);
        finish(w->job, outcome, detail.empty() ? DetailOf(outcome, -1, s_) : detail);
        w = running_.erase(w);
        reaped = true;
        continue;
      }
      if (s_.timeoutSeconds && !w->killed && Clock::now() - w->started >= timeout) {
        kill(w->pid, SIGKILL);
        w->killed = true;
      }
      ++w;
    }
    return reaped;
  }

  void finish(size_t job, Outcome outcome, const std::string &detail) {
    ++done_;
    // A worker that did not finish leaves no half-written output behind.
    if (outcome == Outcome::kCrashed || outcome == Outcome::kTimedOut || outcome == Outcome::kWorkerLost)
      unlink(jobs_[job].output.c_str());
    progress_.clear();
    Report(jobs_[job].input, outcome, detail);
    summary_.add(outcome);
    status_ = GravestStatus(status_, ExitStatusOf(outcome));
  }

  const Settings &s_;
  const std::vector<Job> jobs_;
  std::vector<Worker> running_;
  Summary summary_;
  Progress progress_;
  int status_ = kExitOk;
  size_t next_ = 0, done_ = 0;
  sigset_t childEnded_, callerMask_;
};

}  // namespace

int RunBatch(const Settings &s) {
  if (mkdir(s.outDir.c_str(), 0777) != 0 && errno != EEXIST) {
    std::fprintf(stderr, "kln2txt: %s: cannot make the output folder: %s\n", s.outDir.c_str(), std::strerror(errno));
    return kExitFailed;
  }
  return Batch(s, PlanJobs(s)).run();
}

}  // namespace kln2txt
