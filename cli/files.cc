// The tool's own files: the input it checks and, when the filter cannot
// read it in place, copies; the output it writes under a temporary name
// and renames once whole; and the removal of both at a stop signal.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "kln2txt.h"

namespace kln2txt {

namespace {

// Paths to remove when a stop signal ends the process. A handler may only
// read plain memory, so the paths live in fixed slots.
constexpr int kSlots = 4;
char g_removals[kSlots][PATH_MAX];
volatile sig_atomic_t g_used[kSlots];

void RemoveAndStop(int sig) {
  for (int i = 0; i < kSlots; ++i)
    if (g_used[i]) unlink(g_removals[i]);
  signal(sig, SIG_DFL);
  raise(sig);  // delivered once the handler returns: the process ends of it
}

int Register(const std::string &path) {
  if (path.size() >= PATH_MAX) return -1;
  for (int i = 0; i < kSlots; ++i) {
    if (g_used[i]) continue;
    std::memcpy(g_removals[i], path.c_str(), path.size() + 1);
    g_used[i] = 1;
    return i;
  }
  return -1;
}

bool CopyAll(int from, int to) {
  char buf[65536];
  for (ssize_t n; (n = read(from, buf, sizeof buf)) != 0;) {
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = write(to, buf + done, static_cast<size_t>(n - done));
      if (w < 0 && errno != EINTR) return false;
      if (w > 0) done += w;
    }
  }
  return true;
}

// The file a path names, symbolic links resolved, when it exists.
std::string Resolved(const std::string &path) {
  char *real = realpath(path.c_str(), nullptr);
  const std::string resolved = real ? real : path;
  std::free(real);
  return resolved;
}

std::string Folder(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

const int kStopSignals[3] = {SIGINT, SIGTERM, SIGHUP};

void InstallStopHandlers() {
  for (int sig : kStopSignals) {
    struct sigaction old {};
    // A signal ignored from the start (nohup, a background job) stays so.
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler != SIG_IGN) signal(sig, RemoveAndStop);
  }
}

TempPath::~TempPath() {
  if (!path_.empty()) unlink(path_.c_str());
  release();
}

void TempPath::own(const std::string &path) {
  path_ = path;
  slot_ = Register(path);
}

void TempPath::release() {
  if (slot_ >= 0) g_used[slot_] = 0;
  slot_ = -1;
  path_.clear();
}

std::string TempFolder() {
  const char *dir = std::getenv("TMPDIR");
  // Names inside must stay below the filter's path limit.
  return dir && *dir && std::strlen(dir) < 200 ? dir : "/tmp";
}

std::string PartialName(const std::string &output, pid_t pid) {
  return Folder(Resolved(output)) + "/.kln2txt-" + std::to_string(pid) + ".part";
}

Result Input::open(const std::string &name) {
  const int fd = name == "-" ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  Result r;
  if (fd < 0 || fstat(fd, &stat_) != 0) {
    r = {Outcome::kInputFailed, 0, name, errno};
  } else if (S_ISDIR(stat_.st_mode)) {
    r = {Outcome::kInputFailed, 0, name, EISDIR};
  } else if (name == "-" || name.size() >= KLN_MAX_PATH || !S_ISREG(stat_.st_mode)) {
    // The filter opens the input by a name of under KLN_MAX_PATH bytes and
    // seeks in it: standard input, a pipe or a long path goes through a copy.
    r = copy(fd, name);
  }
  if (fd > STDIN_FILENO) close(fd);
  path_ = copy_.path().empty() ? name : copy_.path();
  return r;
}

Result Input::copy(int from, const std::string &name) {
  std::string copy = TempFolder() + "/kln2txt-XXXXXX";
  const int to = mkstemp(copy.data());
  if (to < 0) return {Outcome::kInputFailed, 0, copy, errno};
  copy_.own(copy);
  const bool copied = CopyAll(from, to);
  const int error = errno;
  if (close(to) != 0 && copied) return {Outcome::kInputFailed, 0, copy, errno};
  return copied ? Result{} : Result{Outcome::kInputFailed, 0, name, error};
}

bool Input::isCopy() const { return !copy_.path().empty(); }

Result Output::open(const std::string &path, const struct stat &input) {
  path_ = path;
  if (path.empty()) {
    file_ = stdout;
    return {};
  }
  struct stat st {};
  const bool exists = stat(path.c_str(), &st) == 0;
  if (exists && st.st_dev == input.st_dev && st.st_ino == input.st_ino) return {Outcome::kOutputIsInput, 0, path, 0};
  if (exists && S_ISDIR(st.st_mode)) return {Outcome::kOutputFailed, 0, path, EISDIR};
  if (exists && !S_ISREG(st.st_mode)) {  // a device or a pipe takes the text as it comes
    file_ = std::fopen(path.c_str(), "wb");
    return file_ ? Result{} : Result{Outcome::kOutputFailed, 0, path, errno};
  }
  // A file replaced keeps its permissions and, through a symbolic link,
  // its place; one that may not be written is not replaced either.
  if (exists && access(path.c_str(), W_OK) != 0) return {Outcome::kOutputFailed, 0, path, errno};
  target_ = Resolved(path);
  const std::string partial = PartialName(target_, getpid());
  partial_.own(partial);
  const int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd >= 0 && exists) fchmod(fd, st.st_mode & 07777);
  file_ = fd >= 0 ? fdopen(fd, "wb") : nullptr;
  if (file_) return {};
  const int error = errno;
  if (fd >= 0) close(fd);
  partial_.release();
  return {Outcome::kOutputFailed, 0, path, error};
}

long Output::Write(void *user, const void *data, long len) {
  auto *out = static_cast<Output *>(user);
  return out->write(data, static_cast<size_t>(len)) ? len : 0;
}

bool Output::write(const void *data, size_t n) {
  const size_t skipped = n < skip_ ? n : static_cast<size_t>(skip_);
  skip_ -= skipped;
  n -= skipped;
  if (error_ || n == 0) return error_ == 0;
  if (std::fwrite(static_cast<const char *>(data) + skipped, 1, n, file_) != n) {
    error_ = errno ? errno : EIO;
    return false;
  }
  written_ += n;
  return true;
}

Result Output::finish(Result r, bool recordsFailure) {
  if (!file_) return r;
  const bool closed = file_ == stdout ? std::fflush(file_) == 0 : std::fclose(file_) == 0;
  if (!closed && !error_) error_ = errno ? errno : EIO;
  file_ = nullptr;
  if (error_) r = {Outcome::kWriteFailed, r.code, path_.empty() ? "standard output" : path_, error_};
  const std::string partial = partial_.path();
  if (partial.empty()) return r;
  // Only a whole result is kept: never a failure's part, never nothing.
  if ((recordsFailure || ExitStatusOf(r.outcome) != kExitFailed) && written_ > 0) {
    if (rename(partial.c_str(), target_.c_str()) != 0) return {Outcome::kOutputFailed, r.code, path_, errno};
    partial_.release();
  }
  return r;
}

}  // namespace kln2txt
