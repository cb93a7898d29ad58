// Runs the built bufplay as a child process, the way a user does, with files or pipes for its
// standard streams, so that it sees no terminal.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
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

inline std::string ReadText(const std::string& path) {
  const std::vector<uint8_t> bytes = ReadBytes(path);
  return std::string(bytes.begin(), bytes.end());
}

inline void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
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

// Starts bufplay with the arguments and these file descriptors as its standard streams.
inline pid_t StartBufplay(const std::vector<std::string>& arguments, int in, int out, int err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  std::vector<char*> argv{const_cast<char*>(kBufplay)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t child = -1;
  EXPECT_EQ(posix_spawn(&child, kBufplay, &actions, nullptr, argv.data(), environ), 0) << "cannot start " << kBufplay;
  posix_spawn_file_actions_destroy(&actions);
  return child;
}

// Its exit status (128 + signal when it was killed). One still running after two minutes is killed
// and fails the test instead of hanging it.
inline int AwaitBufplay(pid_t child) {
  if (child <= 0) return -1;
  pollfd exited{int(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
  if (poll(&exited, 1, 120000) == 0) {
    ADD_FAILURE() << "bufplay still ran after two minutes; killed";
    kill(child, SIGKILL);
  }
  close(exited.fd);
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct Outcome {
  int exitStatus = -1;
  std::string out, err;
};

// Runs bufplay to its end with standard input read from `input`.
inline Outcome RunBufplay(const std::vector<std::string>& arguments, const std::string& input = "/dev/null") {
  ScratchFolder outputs;
  const int in = open(input.c_str(), O_RDONLY | O_CLOEXEC);
  const int out = open(outputs.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const int err = open(outputs.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const pid_t child = StartBufplay(arguments, in, out, err);
  for (const int fd : {in, out, err}) close(fd);
  const int exitStatus = AwaitBufplay(child);
  return {exitStatus, ReadText(outputs.file("out")), ReadText(outputs.file("err"))};
}

}  // namespace bufplay_test
