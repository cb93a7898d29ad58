// Everything the fake knows within one test: the log, the chosen results, the queues and parsers,
// the session and the application.
//
// reset() puts a new world in place. Threads and tasks still at work for a previous test keep
// their own world alive until they finish; handles that a previous world gave out are refused by
// the new one without a log line.
//
// Lock order: a queue's mutex, then the world's mutex, then the log's. Callbacks into the player
// are made without any of them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Audio/Platform/AudioFileStream.h"
#include "Audio/Platform/AudioQueue.h"
#include "Audio/Platform/Session/SessionState.h"
#include "fakes/FakePlatform.h"

namespace fake {

class FakeQueue;
class FakeParser;

// How one platform call ends.
struct Outcome {
  OSStatus status = noErr;
  std::exception_ptr exception;

  // Raises the chosen exception, if any; else tells whether the call goes ahead.
  bool proceeds() const {
    if (exception) std::rethrow_exception(exception);
    return status == noErr;
  }
};

// The lines appended by the platform calls, read and awaited by the test. Any thread.
class CallLog {
 public:
  void append(std::string line);
  std::vector<std::string> lines() const;
  void clear();
  // Waits until satisfied(lines) holds, re-testing after every append; false when timeout passes.
  bool waitUntil(const std::function<bool(const std::vector<std::string>&)>& satisfied,
                 std::chrono::milliseconds timeout) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable appended_;
  std::vector<std::string> lines_;  // guarded by mutex_
};

struct ParserSettings {
  AudioStreamBasicDescription dataFormat = defaultMp3Format();
  ParserBehaviour behaviour;  // empty: the default
};

class World {
 public:
  World();

  CallLog log;
  SessionState session;
  std::atomic<bool> inBackground{false};

  // Any thread. Records one call of function as line. refusal is the status with which the call
  // fails on its own; otherwise a chosen result may decide. When the call goes ahead, onSuccess
  // runs with the world's mutex held and its text ends the line (" q=1"); otherwise the line ends
  // in the outcome.
  Outcome record(std::string_view function, std::string line, OSStatus refusal = noErr,
                 const std::function<std::string()>& onSuccess = {});
  // Any thread. The nth call of function from now on ends with outcome.
  void choose(std::string_view function, int nth, Outcome outcome);

  // A handle that an earlier world gave out.
  bool isOfPreviousTest(const void* handle) const;

  // Caller holds the world's mutex (inside onSuccess).
  std::shared_ptr<FakeQueue> addQueueLocked(const AudioStreamBasicDescription& format,
                                            AudioQueueOutputCallback callback, void* userData);
  std::shared_ptr<FakeParser> addParserLocked(void* clientData, AudioFileStream_PropertyListenerProc listener,
                                              AudioFileStream_PacketsProc packets);

  std::shared_ptr<FakeQueue> findQueue(AudioQueueRef handle) const;
  std::shared_ptr<FakeQueue> queue(int id) const;  // null when there is none; 0: the last one
  size_t queueCount() const;
  std::shared_ptr<FakeParser> findParser(AudioFileStreamID handle) const;

  ParserSettings parserSettings() const;
  void setParserSettings(const std::function<void(ParserSettings&)>& change);

  // Disposes of every queue of this world: their threads end once idle.
  void retire();

 private:
  struct Script {
    std::string function;
    int callsToSkip;
    Outcome outcome;
  };

  const uintptr_t firstHandle_;
  mutable std::mutex mutex_;
  // --- guarded by mutex_ ---
  std::vector<Script> scripts_;
  std::vector<std::shared_ptr<FakeQueue>> queues_;
  std::vector<std::shared_ptr<FakeParser>> parsers_;
  ParserSettings parserSettings_;
};

// The current test's world.
std::shared_ptr<World> world();
// Puts a fresh world in place and returns the one it replaces.
std::shared_ptr<World> replaceWorld();

// A four-character code as its text: "aqrn".
std::string fourCharacters(uint32_t code);

// Waits for future up to kWaitTimeout; on timeout fails the current test, naming what.
bool await(std::future<bool>& future, std::string_view what);

}  // namespace fake
