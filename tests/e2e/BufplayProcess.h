// Runs the built bufplay as a child process, the way a user does. Standard input is /dev/null or a
// pipe the test writes as a synthesizer would; the outputs are pipes, so bufplay sees no terminal.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "corpus/Corpus.h"

extern char** environ;

namespace bufplay_test {

#ifdef BUFPLAY_PATH
inline constexpr const char* kBufplay = BUFPLAY_PATH;
#else
inline constexpr const char* kBufplay = nullptr;
#endif

#define REQUIRE_BUFPLAY() \
  if (!bufplay_test::kBufplay) GTEST_SKIP() << "bufplay is not built (ABP_BUILD_TOOLS is OFF)"

using corpus::CorpusPath;
using corpus::ReadCorpusFile;

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

class ScratchFolder {
 public:
  ScratchFolder() {
    std::string pattern = testing::TempDir() + "bufplay-XXXXXX";
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    path_ = pattern;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

struct Outcome {
  int exitStatus = -1;  // 128 + signal when it was killed
  std::string out, err;
};

// Written to standard input: `first`, then, once standard output shows `waitFor` (or at the
// deadline), `rest`; then the pipe closes.
struct StandardInput {
  std::vector<uint8_t> first;
  std::string waitFor;
  std::vector<uint8_t> rest;
  bool waitedInVain = false;
};

// A run that outlives the deadline is killed and fails the test instead of hanging it.
inline Outcome RunBufplay(const std::vector<std::string>& arguments, StandardInput* input = nullptr,
                          std::chrono::seconds deadline = std::chrono::seconds(120)) {
  Outcome outcome;
  std::array<int, 2> outPipe{}, errPipe{}, inPipe{};
  if (pipe2(outPipe.data(), O_CLOEXEC) || pipe2(errPipe.data(), O_CLOEXEC) || pipe2(inPipe.data(), O_CLOEXEC)) {
    ADD_FAILURE() << "pipe failed";
    return outcome;
  }
  signal(SIGPIPE, SIG_IGN);  // bufplay may stop reading early
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (input) {
    posix_spawn_file_actions_adddup2(&actions, inPipe[0], STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);
  std::vector<char*> argv{const_cast<char*>(kBufplay)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t child = 0;
  const int spawned = posix_spawn(&child, kBufplay, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  for (const int end : {outPipe[1], errPipe[1], inPipe[0]}) close(end);
  EXPECT_EQ(spawned, 0) << "cannot start " << kBufplay;

  const auto giveUpAt = std::chrono::steady_clock::now() + deadline;
  std::mutex outputMutex;
  std::condition_variable outputGrew;
  bool outputEnded = false;  // guarded by outputMutex, as outcome.out is while the writer runs
  std::thread writer([&] {
    const auto writeAll = [&](const std::vector<uint8_t>& bytes) {
      for (size_t done = 0; done < bytes.size();) {
        const ssize_t written = write(inPipe[1], bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno != EINTR) return;
        done += size_t(std::max<ssize_t>(written, 0));
      }
    };
    if (input && spawned == 0) {
      writeAll(input->first);
      std::unique_lock lock(outputMutex);
      const auto shown = [&] { return outcome.out.find(input->waitFor) != std::string::npos; };
      outputGrew.wait_until(lock, giveUpAt, [&] { return outputEnded || shown(); });
      input->waitedInVain = !shown();
      lock.unlock();
      writeAll(input->rest);
    }
    close(inPipe[1]);
  });
  std::array<pollfd, 2> pipes{{{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}}};
  std::array<std::string*, 2> sinks{&outcome.out, &outcome.err};
  bool killed = spawned != 0;
  while (pipes[0].fd >= 0 || pipes[1].fd >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(giveUpAt - std::chrono::steady_clock::now());
    if (left.count() <= 0 && !killed) {
      ADD_FAILURE() << "bufplay still ran after " << deadline.count() << " s; killed";
      kill(child, SIGKILL);
      killed = true;
    }
    poll(pipes.data(), pipes.size(), killed ? -1 : int(std::max<int64_t>(left.count(), 0)));
    for (size_t index = 0; index < pipes.size(); ++index) {
      if (pipes[index].fd < 0 || pipes[index].revents == 0) continue;
      char block[4096];
      const ssize_t got = read(pipes[index].fd, block, sizeof block);
      if (got > 0) {
        std::lock_guard lock(outputMutex);
        sinks[index]->append(block, size_t(got));
      } else if (got == 0 || errno != EINTR) {
        close(pipes[index].fd);
        pipes[index].fd = -1;
      }
      outputGrew.notify_all();
    }
  }
  {
    std::lock_guard lock(outputMutex);
    outputEnded = true;
  }
  outputGrew.notify_all();
  writer.join();
  int status = 0;
  if (spawned == 0) waitpid(child, &status, 0);
  outcome.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

}  // namespace bufplay_test
