// A private PulseAudio daemon with one null sink, reached as a desktop reaches it: PortAudio -> ALSA
// -> the pulse plugin -> the daemon. It lives in a temporary folder, so a user's own sound server is
// never touched, and works as root. It points the process environment at itself.
#pragma once

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
#include <utility>
#include <vector>

extern char** environ;

namespace sound_server_test {

inline constexpr uint32_t kRecordRate = 16000;
inline constexpr const char* kSink = "abp_sink";

class SoundServer {
 public:
  SoundServer() {
    char pattern[] = "/tmp/abp-pulse-XXXXXX";
    dir_ = mkdtemp(pattern) ? pattern : "";
    const std::string home = dir_ + "/home", socket = dir_ + "/native";
    std::filesystem::create_directories(home);
    std::ofstream(dir_ + "/server.pa") << "load-module module-null-sink sink_name=" << kSink
                                       << " rate=48000 channels=2\n"
                                       << "load-module module-native-protocol-unix socket=" << socket
                                       << " auth-anonymous=1\nset-default-sink " << kSink << "\n";
    // ALSA's default device goes to this daemon; ALSA reads ~/.asoundrc on top of its own setup.
    std::ofstream(home + "/.asoundrc") << "pcm.!default { type pulse server \"unix:" << socket << "\" }\n"
                                       << "ctl.!default { type pulse server \"unix:" << socket << "\" }\n";
    setenv("HOME", home.c_str(), 1);
    setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
    setenv("PULSE_RUNTIME_PATH", (dir_ + "/runtime").c_str(), 1);
    setenv("PULSE_STATE_PATH", (dir_ + "/state").c_str(), 1);
    setenv("PULSE_SERVER", ("unix:" + socket).c_str(), 1);
    // Daemonised, pulseaudio returns once it is ready to serve, or has failed. Should this process
    // die first, the daemon ends itself once no client has been left for 20 s.
    const std::string start = "pulseaudio --daemonize=yes --system=false -n -F " + dir_ + "/server.pa" +
                              " --exit-idle-time=20 --disallow-exit --use-pid-file=yes --disable-shm=yes" +
                              " --log-target=file:" + dir_ + "/daemon.log 2>/dev/null";
    if (std::system(start.c_str()) == 0) std::ifstream(dir_ + "/runtime/pid") >> daemon_;
  }

  // Waits until the daemon has ended (it writes into the folder as it goes), then removes the folder.
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
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }

  bool started() const { return daemon_ > 0; }
  std::string log() const { return dir_ + "/daemon.log"; }

 private:
  std::string dir_;
  pid_t daemon_ = -1;
};

// Records the sink's monitor from construction to stop(), noting how much had arrived when.
class MonitorRecording {
 public:
  using Clock = std::chrono::steady_clock;

  MonitorRecording() {
    int fds[2];
    if (pipe(fds) != 0) return;
    const std::string device = std::string("--device=") + kSink + ".monitor";
    const std::string rate = "--rate=" + std::to_string(kRecordRate);
    const char* argv[] = {"parec", device.c_str(), rate.c_str(), "--format=s16le", "--channels=1",
                          "--latency-msec=10", "--raw", nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    if (posix_spawnp(&pid_, argv[0], &actions, nullptr, const_cast<char**>(argv), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    reader_ = std::thread([this, fd = fds[0]] {
      int16_t piece[1024];
      for (ssize_t got; (got = read(fd, piece, sizeof piece)) > 0;) {
        std::lock_guard lock(mutex_);
        samples_.insert(samples_.end(), piece, piece + got / 2);  // parec writes whole samples
        arrivals_.emplace_back(Clock::now(), samples_.size());
        arrived_.notify_all();
      }
      close(fd);
    });
  }
  ~MonitorRecording() { stop(); }

  // The monitor delivers silence too once it runs.
  bool waitUntilRecording() {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::seconds(30), [&] { return !samples_.empty(); });
  }

  void stop() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(std::exchange(pid_, -1), nullptr, 0);
    }
    if (reader_.joinable()) reader_.join();
  }

  // After stop().
  const std::vector<int16_t>& samples() const { return samples_; }
  size_t samplesBy(Clock::time_point when) const {
    size_t count = 0;
    for (auto arrival = arrivals_.begin(); arrival != arrivals_.end() && arrival->first <= when; ++arrival) {
      count = arrival->second;
    }
    return count;
  }

 private:
  pid_t pid_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  // Guarded by mutex_ until stop().
  std::vector<int16_t> samples_;
  std::vector<std::pair<Clock::time_point, size_t>> arrivals_;
};

}  // namespace sound_server_test
