// A private PulseAudio daemon with one null sink, for tests that play through the machine's sound
// output as a user's desktop would: PortAudio -> ALSA -> the ALSA pulse plugin -> the daemon. It
// lives in a temporary folder (HOME, runtime and state paths, ALSA configuration), so a user's own
// sound server is never touched, and it works as root (CI). The sink's monitor is recorded with
// parec; paplay plays the same data as the reference.
//
// The process environment is pointed at the daemon: create the server before anything in the
// process sets PortAudio or ALSA up.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace sound_server_test {

inline constexpr uint32_t kRecordRate = 16000;

// Runs `args` with standard output to `stdoutFd` (-1: /dev/null). Returns its pid, or -1.
inline pid_t Spawn(const std::vector<std::string>& args, int stdoutFd = -1) {
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (stdoutFd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return failed == 0 ? pid : -1;
}

// Runs `args` to its end; returns whether it exited with 0.
inline bool RunToEnd(const std::vector<std::string>& args) {
  const pid_t pid = Spawn(args);
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class SoundServer {
 public:
  static constexpr const char* kSink = "abp_sink";

  SoundServer() {
    char pattern[] = "/tmp/abp-pulse-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      failure_ = "cannot create a temporary folder";
      return;
    }
    dir_ = pattern;
    const std::string home = dir_ + "/home", socket = dir_ + "/native";
    std::filesystem::create_directories(home);
    std::ofstream(dir_ + "/server.pa") << "load-module module-null-sink sink_name=" << kSink
                                       << " rate=48000 channels=2\n"
                                       << "load-module module-native-protocol-unix socket=" << socket
                                       << " auth-anonymous=1\n"
                                       << "set-default-sink " << kSink << "\n";
    // ALSA's default device goes to this daemon; ALSA reads ~/.asoundrc on top of its own setup.
    std::ofstream(home + "/.asoundrc") << "pcm.!default { type pulse server \"unix:" << socket << "\" }\n"
                                       << "ctl.!default { type pulse server \"unix:" << socket << "\" }\n";
    setenv("HOME", home.c_str(), 1);
    setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
    setenv("PULSE_RUNTIME_PATH", (dir_ + "/runtime").c_str(), 1);
    setenv("PULSE_STATE_PATH", (dir_ + "/state").c_str(), 1);
    setenv("PULSE_SERVER", ("unix:" + socket).c_str(), 1);
    // Daemonised, pulseaudio returns once it is ready to serve, or has failed. Should this process
    // die before it ends the daemon, the daemon ends itself once no client has been left for 20 s.
    started_ = RunToEnd({"pulseaudio", "--daemonize=yes", "--system=false", "-n", "-F", dir_ + "/server.pa",
                         "--exit-idle-time=20", "--disallow-exit", "--use-pid-file=yes", "--disable-shm=yes",
                         "--log-target=file:" + dir_ + "/daemon.log"});
    std::ifstream(dir_ + "/runtime/pid") >> daemon_;
    started_ = started_ && daemon_ > 0;
    if (!started_) {
      failure_ = "the PulseAudio daemon did not start (is pulseaudio installed? its log: " + dir_ + "/daemon.log)";
    }
  }

  // Ends the daemon, waits until it has (it writes into the folder as it goes), removes the folder.
  ~SoundServer() {
    if (daemon_ > 0) {
      const int exited = int(syscall(SYS_pidfd_open, daemon_, 0));
      kill(daemon_, SIGTERM);
      if (exited >= 0) {
        pollfd wait{exited, POLLIN, 0};
        poll(&wait, 1, 30000);
        close(exited);
      }
    }
    if (!dir_.empty()) {
      std::error_code ignored;
      std::filesystem::remove_all(dir_, ignored);
    }
  }
  SoundServer(const SoundServer&) = delete;
  SoundServer& operator=(const SoundServer&) = delete;

  bool started() const { return started_; }
  const std::string& failure() const { return failure_; }
  const std::string& folder() const { return dir_; }

 private:
  std::string dir_;
  pid_t daemon_ = -1;
  bool started_ = false;
  std::string failure_;
};

// Records the sink's monitor (mono, 16 kHz) with parec from construction to stop(), and notes when
// each piece arrived, so that a sample can be told the moment it was heard.
class MonitorRecording {
 public:
  using Clock = std::chrono::steady_clock;

  MonitorRecording() {
    int fds[2];
    if (pipe(fds) != 0) return;
    pid_ = Spawn({"parec", std::string("--device=") + SoundServer::kSink + ".monitor", "--format=s16le",
                  "--rate=" + std::to_string(kRecordRate), "--channels=1", "--latency-msec=10", "--raw"},
                 fds[1]);
    close(fds[1]);
    reader_ = std::thread([this, fd = fds[0]] { read(fd); });
  }
  ~MonitorRecording() { stop(); }

  // Waits until the monitor delivers (it runs all the time, silence included). False if it never does.
  bool waitUntilRecording() {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::seconds(30), [&] { return !samples_.empty() || ended_; }) &&
           !samples_.empty();
  }

  void stop() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
    if (reader_.joinable()) reader_.join();
  }

  // After stop().
  const std::vector<int16_t>& samples() const { return samples_; }
  // After stop(): how many samples had arrived by `when`.
  size_t samplesBy(Clock::time_point when) const {
    size_t count = 0;
    for (const auto& [time, total] : arrivals_) {
      if (time > when) break;
      count = total;
    }
    return count;
  }

 private:
  void read(int fd) {
    std::vector<int16_t> piece(1024);
    for (;;) {
      const ssize_t got = ::read(fd, piece.data(), piece.size() * sizeof(int16_t));
      if (got <= 0) break;
      std::lock_guard lock(mutex_);
      const size_t bytes = pending_.size() + size_t(got);
      pending_.insert(pending_.end(), reinterpret_cast<uint8_t*>(piece.data()),
                      reinterpret_cast<uint8_t*>(piece.data()) + got);
      for (size_t i = 0; i + 1 < bytes; i += 2) samples_.push_back(int16_t(pending_[i] | pending_[i + 1] << 8));
      pending_.erase(pending_.begin(), pending_.begin() + long(bytes & ~size_t(1)));
      arrivals_.emplace_back(Clock::now(), samples_.size());
      arrived_.notify_all();
    }
    close(fd);
    std::lock_guard lock(mutex_);
    ended_ = true;
    arrived_.notify_all();
  }

  pid_t pid_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  // --- guarded by mutex_ until stop() ---
  std::vector<uint8_t> pending_;
  std::vector<int16_t> samples_;
  std::vector<std::pair<Clock::time_point, size_t>> arrivals_;
  bool ended_ = false;
};

}  // namespace sound_server_test
