// Several documents into a folder. Each document is converted in a worker
// process of its own, so that one that crashes the filter or never ends
// costs only itself: the parent keeps up to -j workers running, kills a
// worker after --timeout, and tells how every document ended.
#include <ftw.h>
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

// Removes a folder and everything in it.
void RemoveTree(const std::string &path) {
  nftw(
      path.c_str(), [](const char *p, const struct stat *, int, FTW *) { return remove(p); }, 8, FTW_DEPTH | FTW_PHYS);
}

// A worker converts one document in a process group of its own (so that
// killing the group ends whatever it started) with a temporary folder of
// its own (so that the parent can remove whatever it left there), and
// reports the document itself: it knows the paths and reasons.
[[noreturn]] void RunWorker(const Settings &s, const Job &job, const std::string &tmp, const sigset_t &mask) {
  setpgid(0, 0);
  setenv("TMPDIR", tmp.c_str(), 1);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  const Result r = ConvertDocument(s, job.input, job.output);
  Report(job.input, r, s);
  std::fflush(nullptr);
  _exit(kWorkerExitBase + static_cast<int>(r.outcome));
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

  // Answers the gravest exit status of the documents, or 128 plus the stop
  // signal that ended the batch.
  int run() {
    // SIGCHLD and the stop signals stay pending while blocked, so that
    // waitForEvent wakes up for any of them since the last look. They stay
    // blocked to the end: once the summary is out, the run is over.
    sigemptyset(&watched_);
    sigaddset(&watched_, SIGCHLD);
    for (int sig : kStopSignals) sigaddset(&watched_, sig);
    sigprocmask(SIG_BLOCK, &watched_, &callerMask_);
    tmp_ = TempFolder() + "/kln2txt-XXXXXX";
    if (!mkdtemp(tmp_.data())) {
      std::fprintf(stderr, "kln2txt: %s: cannot make a temporary folder: %s\n", tmp_.c_str(), std::strerror(errno));
      return kExitFailed;
    }
    int stop = 0;
    while (!stop && (next_ < jobs_.size() || !running_.empty())) {
      const bool started = startWorkers();
      const bool reaped = reapWorkers();
      if ((started || reaped) && !running_.empty()) progress_.show(done_, BaseName(jobs_[running_.front().job].input));
      stop = waitForEvent(reaped || running_.empty());
    }
    if (!stop) stop = waitForEvent(true);
    if (stop) interrupt(stop);
    RemoveTree(tmp_);
    progress_.clear();
    summary_.write(jobs_.size());
    return stop ? 128 + stop : status_;
  }

 private:
  // Sleeps until a worker ends, a stop signal comes, the first running
  // worker's --timeout passes or a second has gone by (no time at all with
  // `poll`). Answers the stop signal, or 0.
  int waitForEvent(bool poll) const {
    auto wait = std::chrono::nanoseconds(poll ? std::chrono::seconds(0) : std::chrono::seconds(1));
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
    const int sig = sigtimedwait(&watched_, nullptr, &ts);
    return sig > 0 && sig != SIGCHLD ? sig : 0;
  }

  std::string workerTmp(size_t job) const { return tmp_ + "/" + std::to_string(job); }

  bool startWorkers() {
    const size_t first = next_;
    for (; running_.size() < s_.jobs && next_ < jobs_.size(); ++next_) {
      const std::string tmp = workerTmp(next_);
      std::fflush(nullptr);  // nothing buffered may be written twice
      const pid_t pid = mkdir(tmp.c_str(), 0700) == 0 ? fork() : -1;
      if (pid == 0) RunWorker(s_, jobs_[next_], tmp, callerMask_);
      if (pid < 0) {
        const std::string detail = std::string("cannot start a worker: ") + std::strerror(errno);
        finish(next_, Outcome::kWorkerLost, &detail);
        rmdir(tmp.c_str());
        continue;
      }
      setpgid(pid, pid);  // the worker does the same: whichever runs first
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
        removeLeftovers(*w);
        // A worker that got to the end reported its document itself.
        const bool lost = outcome == Outcome::kCrashed || outcome == Outcome::kTimedOut || outcome == Outcome::kWorkerLost;
        finish(w->job, outcome, lost ? &detail : nullptr);
        w = running_.erase(w);
        reaped = true;
        continue;
      }
      if (s_.timeoutSeconds && !w->killed && Clock::now() - w->started >= timeout) {
        kill(-w->pid, SIGKILL);
        w->killed = true;
      }
      ++w;
    }
    return reaped;
  }

  // Ends the batch at stop signal `sig`: every running worker is killed and
  // collected, and every document not converted counts as interrupted.
  void interrupt(int sig) {
    for (const Worker &w : running_) kill(-w.pid, SIGKILL);
    for (const Worker &w : running_) {
      waitpid(w.pid, nullptr, 0);
      removeLeftovers(w);
      const std::string detail = strsignal(sig);
      finish(w.job, Outcome::kInterrupted, &detail);
    }
    running_.clear();
    for (; next_ < jobs_.size(); ++next_) summary_.add(Outcome::kInterrupted);
  }

  // What a worker may have left when it did not get to the end: its
  // output not yet whole, and its temporary folder.
  void removeLeftovers(const Worker &w) const {
    unlink(PartialName(jobs_[w.job].output, w.pid).c_str());
    RemoveTree(workerTmp(w.job));
  }

  // Counts the outcome; reports it with its detail, if given.
  void finish(size_t job, Outcome outcome, const std::string *detail) {
    ++done_;
    progress_.clear();
    if (detail) Report(jobs_[job].input, outcome, *detail);
    summary_.add(outcome);
    status_ = GravestStatus(status_, ExitStatusOf(outcome));
  }

  const Settings &s_;
  const std::vector<Job> jobs_;
  std::string tmp_;  // the workers' temporary folders are in here
  std::vector<Worker> running_;
  Summary summary_;
  Progress progress_;
  int status_ = kExitOk;
  size_t next_ = 0, done_ = 0;
  sigset_t watched_, callerMask_;
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
