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
#include <chrono>
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
#include "fakes/CallLog.h"
#include "fakes/CallScripts.h"
#include "fakes/FakePlatform.h"

namespace fake {

class FakeQueue;
class FakeParser;

struct ParserSettings {
  AudioStreamBasicDescription dataFormat = defaultMp3Format();
  uint32_t packetSize = kDefaultMp3PacketSize;
  ParserBehaviour behaviour;  // empty: the default
};

class World {
 public:
  World();

  CallLog log;
  SessionState session;
  std::atomic<bool> receivingRemoteControlEvents{false};
  std::atomic<bool> inBackground{false};

  // Any thread. Records one call of function as line. refusal is the status with which the call
  // fails on its own; otherwise a chosen result may decide. When the call goes ahead, onSuccess
  // runs with the world's mutex held (it may use the *Locked functions) and its text ends the line
  // (" q=1"); otherwise the line ends in the outcome.
  Outcome record(std::string_view function, std::string line, OSStatus refusal = noErr,
                 const std::function<std::string()>& onSuccess = {});
  // Any thread.
  void choose(std::string_view function, int nth, bool repeat, Outcome outcome);

  // A handle that an earlier world gave out.
  bool isOfPreviousTest(const void* handle) const;

  std::shared_ptr<FakeQueue> addQueueLocked(const AudioStreamBasicDescription& format,
                                            AudioQueueOutputCallback callback, void* userData);
  std::shared_ptr<FakeQueue> findQueue(AudioQueueRef handle) const;
  std::shared_ptr<FakeQueue> queue(int id) const;  // null when there is none
  std::shared_ptr<FakeQueue> lastQueue() const;
  size_t queueCount() const;

  std::shared_ptr<FakeParser> addParserLocked(void* clientData, AudioFileStream_PropertyListenerProc listener,
                                              AudioFileStream_PacketsProc packets);
  std::shared_ptr<FakeParser> findParser(AudioFileStreamID handle) const;

  ParserSettings parserSettings() const;
  void setParserSettings(const std::function<void(ParserSettings&)>& change);

  // Disposes of every queue of this world: their threads end once idle.
  void retire();

 private:
  const uintptr_t firstHandle_;
  mutable std::mutex mutex_;
  // --- guarded by mutex_ ---
  CallScripts scripts_;
  std::vector<std::shared_ptr<FakeQueue>> queues_;
  std::vector<std::shared_ptr<FakeParser>> parsers_;
  ParserSettings parserSettings_;
};

// The current test's world.
std::shared_ptr<World> world();
// Puts a fresh world in place and returns the one it replaces.
std::shared_ptr<World> replaceWorld();

// A handle value never given out before in this process; never dereferenced.
uintptr_t newHandle();

// A four-character code as its text: "aqrn".
std::string fourCharacters(uint32_t code);
// " -> !int", or the status as a number when its characters are not printable.
std::string outcomeText(const Outcome& outcome);

// Waits for future up to kWaitTimeout; on timeout fails the current test, naming what.
bool await(std::future<bool>& future, std::string_view what);

}  // namespace fake
