#include "qomm_test_util.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

extern char** environ;

namespace qomm_test {

namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

int DecodeStatus(int raw) {
  if (WIFEXITED(raw)) return WEXITSTATUS(raw);
  if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
  return -1;
}

pid_t Spawn(const std::vector<std::string>& args, int* out_fd, int* err_fd) {
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0) return -1;
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    return -1;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  // The child gets default signal handling and an empty mask.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<char*> argv;
  std::string program = QommPath();
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, program.c_str(), &actions, &attr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(out[1]);
  close(err[1]);
  *out_fd = out[0];
  *err_fd = err[0];
  return pid;
}

// Reads what is there from both pipes (waiting up to timeout_ms); closes a
// pipe at its end.
void ReadPipes(int* out_fd, int* err_fd, std::string* out, std::string* err, int timeout_ms) {
  struct pollfd fds[2] = {{*out_fd, POLLIN, 0}, {*err_fd, POLLIN, 0}};
  if (poll(fds, 2, timeout_ms) <= 0) return;
  int* ends[2] = {out_fd, err_fd};
  std::string* bufs[2] = {out, err};
  for (int i = 0; i < 2; ++i) {
    if (fds[i].fd < 0 || fds[i].revents == 0) continue;
    char buf[4096];
    ssize_t n = read(fds[i].fd, buf, sizeof(buf));
    if (n > 0) {
      bufs[i]->append(buf, static_cast<size_t>(n));
    } else {
      close(fds[i].fd);
      *ends[i] = -1;
    }
  }
}

}  // namespace

std::string QommPath() { return QO_QOMM_PATH; }

std::string SamplePath(const std::string& name) {
  return std::string(QO_TEST_SOURCE_DIR) + "/data/" + name;
}

std::string TempPath(const std::string& name) {
  static const std::string dir = [] {
    std::string base = std::string(QO_TEST_BINARY_DIR) + "/tests/tools/qomm-tmp-XXXXXX";
    std::vector<char> buf(base.begin(), base.end());
    buf.push_back('\0');
    const char* made = mkdtemp(buf.data());
    return std::string(made != nullptr ? made : "/tmp");
  }();
  return dir + "/" + name;
}

RunResult RunQomm(const std::vector<std::string>& args, double timeout_s) {
  RunResult r;
  Clock::time_point start = Clock::now();
  int out_fd = -1;
  int err_fd = -1;
  pid_t pid = Spawn(args, &out_fd, &err_fd);
  if (pid < 0) {
    r.err = "cannot start " + QommPath();
    return r;
  }
  bool killed = false;
  while (out_fd >= 0 || err_fd >= 0) {
    if (!killed && Since(start) > timeout_s) {
      kill(pid, SIGKILL);
      killed = true;
    }
    ReadPipes(&out_fd, &err_fd, &r.out, &r.err, 100);
  }
  int raw = 0;
  waitpid(pid, &raw, 0);
  r.status = DecodeStatus(raw);
  r.seconds = Since(start);
  return r;
}

Background::Background(const std::vector<std::string>& args) {
  pid_ = Spawn(args, &out_fd_, &err_fd_);
}

Background::~Background() {
  if (pid_ > 0 && status_ < 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_fd_ >= 0) close(out_fd_);
  if (err_fd_ >= 0) close(err_fd_);
}

void Background::Pump(int timeout_ms) {
  if (out_fd_ < 0 && err_fd_ < 0) {
    usleep(static_cast<useconds_t>(timeout_ms) * 1000);
    return;
  }
  ReadPipes(&out_fd_, &err_fd_, &out_, &err_, timeout_ms);
}

std::string Background::ReadLine(double timeout_s) {
  Clock::time_point start = Clock::now();
  for (;;) {
    size_t nl = out_.find('\n');
    if (nl != std::string::npos) {
      std::string line = out_.substr(0, nl);
      out_.erase(0, nl + 1);
      return line;
    }
    if (Since(start) > timeout_s || (out_fd_ < 0 && err_fd_ < 0)) return "";
    Pump(100);
  }
}

int Background::Signal(int sig, double timeout_s) {
  if (pid_ <= 0) return -1;
  if (status_ >= 0) return status_;
  kill(pid_, sig);
  Clock::time_point start = Clock::now();
  while (Since(start) < timeout_s) {
    int raw = 0;
    pid_t r = waitpid(pid_, &raw, WNOHANG);
    if (r == pid_) {
      status_ = DecodeStatus(raw);
      while (out_fd_ >= 0 || err_fd_ >= 0) Pump(100);
      return status_;
    }
    Pump(50);
  }
  return -1;
}

std::string Background::Err() {
  Pump(0);
  return err_;
}

ServeProcess::ServeProcess(const std::vector<std::string>& files)
    : process_([&files] {
        std::vector<std::string> args = {"serve", "--port", "0"};
        args.insert(args.end(), files.begin(), files.end());
        return args;
      }()) {
  for (size_t i = 0; i < files.size(); ++i) {
    std::string line = process_.ReadLine(30);
    if (line.empty()) break;
    urls_.push_back(line.substr(0, line.find(' ')));
  }
}

int ServeProcess::Stop() { return process_.Signal(SIGINT, 30); }

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    if (nl > pos) lines.push_back(text.substr(pos, nl - pos));
    pos = nl + 1;
  }
  return lines;
}

std::string SummaryText(const std::string& text, const std::string& field) {
  for (const std::string& line : Lines(text)) {
    size_t start = line.find_first_not_of(' ');
    if (start != 2 || line.compare(2, field.size() + 1, field + ":") != 0) continue;
    std::string value = line.substr(2 + field.size() + 1);
    size_t first = value.find_first_not_of(' ');
    return first == std::string::npos ? "" : value.substr(first);
  }
  return "";
}

long SummaryNumber(const std::string& text, const std::string& field) {
  std::string value = SummaryText(text, field);
  if (value.empty() || !isdigit(static_cast<unsigned char>(value[0]))) return -1;
  return std::strtol(value.c_str(), nullptr, 10);
}

std::vector<long> AllFrameCounts(const std::string& text) {
  std::vector<long> counts;
  for (const std::string& line : Lines(text)) {
    if (line.rfind("  frames:", 0) == 0) counts.push_back(SummaryNumber(line, "frames"));
  }
  return counts;
}

bool ParseJsonObject(const std::string& line, std::map<std::string, std::string>* fields) {
  fields->clear();
  size_t i = 0;
  auto skip = [&] {
    while (i < line.size() && isspace(static_cast<unsigned char>(line[i]))) ++i;
  };
  auto string_at = [&](std::string* out) {
    if (i >= line.size() || line[i] != '"') return false;
    ++i;
    out->clear();
    while (i < line.size() && line[i] != '"') {
      if (line[i] == '\\') {
        if (++i >= line.size()) return false;
      }
      out->push_back(line[i++]);
    }
    if (i >= line.size()) return false;
    ++i;
    return true;
  };
  skip();
  if (i >= line.size() || line[i++] != '{') return false;
  skip();
  if (i < line.size() && line[i] == '}') return true;
  for (;;) {
    std::string key;
    std::string value;
    skip();
    if (!string_at(&key)) return false;
    skip();
    if (i >= line.size() || line[i++] != ':') return false;
    skip();
    if (i < line.size() && line[i] == '"') {
      if (!string_at(&value)) return false;
    } else {
      size_t end = line.find_first_of(",}", i);
      if (end == std::string::npos) return false;
      value = line.substr(i, end - i);
      while (!value.empty() && isspace(static_cast<unsigned char>(value.back()))) value.pop_back();
      i = end;
      char* stop = nullptr;
      if (value != "null" && value != "true" && value != "false") {
        std::strtod(value.c_str(), &stop);
        if (value.empty() || *stop != '\0') return false;
      }
    }
    (*fields)[key] = value;
    skip();
    if (i >= line.size()) return false;
    if (line[i] == '}') {
      ++i;
      skip();
      return i == line.size();
    }
    if (line[i++] != ',') return false;
  }
}

bool PngSize(const std::string& path, int* width, int* height) {
  std::ifstream in(path, std::ios::binary);
  unsigned char head[24];
  if (!in.read(reinterpret_cast<char*>(head), sizeof(head))) return false;
  static const unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (std::memcmp(head, kSignature, 8) != 0 || std::memcmp(head + 12, "IHDR", 4) != 0) {
    return false;
  }
  auto be32 = [](const unsigned char* p) {
    return static_cast<int>((static_cast<uint32_t>(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) |
                            p[3]);
  };
  *width = be32(head + 16);
  *height = be32(head + 20);
  return true;
}

}  // namespace qomm_test
