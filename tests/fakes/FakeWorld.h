// Everything the fake knows within one test. reset() puts a new world in place; work still under
// way for a previous test keeps its own world alive until it finishes, and the new world refuses
// the handles that the old one gave out. One mutex guards the world; the player is always called
// without it.
#pragma once

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Audio/Platform/Session/SessionState.h"
#include "fakes/FakePlatform.h"

namespace fake {

struct FakeQueue {
  uintptr_t handle = 0;
  AudioQueueOutputCallback callback = nullptr;
  void* userData = nullptr;
  AudioQueuePropertyListenerProc listener = nullptr;
  void* listenerData = nullptr;
  QueueState state;
  std::vector<std::unique_ptr<AudioQueueBuffer>> buffers;  // buf=N is buffers[N - 1]
  std::vector<std::unique_ptr<uint8_t[]>> memory;
  size_t nextToPlayBack = 0;  // into state.enqueued
};

struct FakeParser {
  uintptr_t handle = 0;
  int id = 0;  // s=N
  void* clientData = nullptr;
  AudioFileStream_PropertyListenerProc listener = nullptr;
  AudioFileStream_PacketsProc packets = nullptr;
  int parseCalls = 0;
  bool formatReported = false;
  bool closed = false;
  std::vector<uint8_t> remainder;  // bytes of an incomplete packet, waiting for the next call
};

class World {
 public:
  std::mutex mutex;
  SessionState session;
  std::atomic<bool> inBackground{false};
  // --- guarded by mutex ---
  std::vector<std::string> log;
  std::vector<std::shared_ptr<FakeQueue>> queues;
  std::vector<std::shared_ptr<FakeParser>> parsers;
  AudioStreamBasicDescription dataFormat = defaultMp3Format();
  ParserBehaviour behaviour;  // empty: the default

  // Caller holds mutex. Appends line with the call's outcome (refusal, else a chosen result).
  OSStatus record(std::string_view function, std::string line, OSStatus refusal = noErr);
  void append(std::string line);  // caller holds mutex
  void choose(std::string_view function, int nth, OSStatus status, std::exception_ptr exception);
  template <class Fake>  // caller holds mutex
  static std::shared_ptr<Fake> find(const std::vector<std::shared_ptr<Fake>>& fakes, const void* handle) {
    const auto has = [&](const auto& fake) { return fake->handle == reinterpret_cast<uintptr_t>(handle); };
    const auto found = std::find_if(fakes.begin(), fakes.end(), has);
    return found == fakes.end() ? nullptr : *found;
  }
  bool waitForLog(const std::function<bool(const std::vector<std::string>&)>& satisfied);

 private:
  struct Script {
    std::string function;
    int callsToSkip;
    OSStatus status;
    std::exception_ptr exception;
  };
  std::vector<Script> scripts_;  // guarded by mutex
  std::condition_variable appended_;
};

// The current test's world.
std::shared_ptr<World> world();
// A handle value never given out before in this process; never dereferenced.
uintptr_t newHandle();

}  // namespace fake
