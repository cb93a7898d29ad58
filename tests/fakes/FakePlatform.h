// The platform stand-in that the player's unit tests link instead of the real audio services.
//
// It replaces the output queue (AudioQueue*), the stream parser (AudioFileStream*), AudioSession,
// Application and NSLog; the work queues and the notification centre are the real ones. It
//  - records every call, in call order, as one line of text in one log (formats below);
//  - makes the n-th call of a function return a chosen status or raise a chosen exception;
//  - plays enqueued buffers back and reports running-state changes on command, from the fake
//    queue's own callback thread, and waits until the callback has returned;
//  - "parses" MP3 by a simple rule that a test can replace, and never decodes anything.
//
// Call fake::reset() at the start of every test. Every function may be called from any thread.
// Waits end with a generous deadline (kWaitTimeout): when it passes, the wait fails the current test
// and returns false instead of hanging, so write ASSERT_TRUE(fake::waitForCall("AudioQueueStart")).
// A wait never succeeds from inside the callback it waits for: a playBack() from the queue's
// callback thread fails at once, a session wait from a session handler at its deadline.
//
// The log, one line per call. q=N, buf=N and s=N are counted from 1 within the test: q=2 is the
// test's second queue, buf=3 the third buffer allocated on its queue, s=1 the test's first parser.
//   AudioQueueNewOutput rate=16000 fmt=lpcm q=1       AudioQueueAllocateBuffer q=1 size=5120 buf=1
//   AudioQueueSetParameter q=1 volume=0.5             AudioQueueAddPropertyListener q=1 prop=aqrn
//   AudioQueueEnqueueBuffer q=1 buf=3 bytes=5120 packets=0
//   AudioQueueStart q=1     AudioQueuePause q=1       AudioQueueStop q=1 immediate=0
//   AudioQueueDispose q=1 immediate=1                 AudioQueueGetCurrentTime q=1
//   AudioFileStreamOpen s=1                           AudioFileStreamParseBytes s=1 bytes=1000
//   AudioFileStreamGetProperty s=1 prop=dfmt          AudioFileStreamClose s=1
//   setCategory AVAudioSessionCategoryPlayback options=0          setActive 1 options=1
//   beginReceivingRemoteControlEvents (runs later, on the main queue)   NSLog <the message>
// A refused call ends in " -> " and its status, as four characters when they are printable
// ("AudioQueueStart q=1 -> !int"), else as a number; a call that raises ends in " -> raises". A
// refused call has no other effect. The handles of a previous test are refused without a line, so
// late work of an old player leaves no trace. Queue and parser handles are never reused.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Audio/Platform/AudioFileStream.h"
#include "Audio/Platform/AudioQueue.h"

namespace fake {

inline constexpr std::chrono::seconds kWaitTimeout{30};

// Starts a new test: clears the log, the chosen results, the parser settings, the session (no
// category, inactive, not interrupted) and the application (foreground). Session notifications
// still under way are delivered first. The previous test's queues are disposed of: a callback of
// theirs already running finishes on its own, none starts.
void reset();

// The call log; calls(text) keeps only the lines that contain text.
std::vector<std::string> calls();
std::vector<std::string> calls(std::string_view text);
size_t countCalls(std::string_view text);
void clearCalls();

// Wait until a line, or count lines, contain text.
[[nodiscard]] bool waitForCall(std::string_view text);
[[nodiscard]] bool waitForCalls(std::string_view text, size_t count);
// Waits until every task posted to the main work queue before this call has run (the
// remote-control registrations run there). Lets a test check that something did not happen.
[[nodiscard]] bool waitForMainQueue();

// Chosen results. function is the first word of the call's log line: any AudioQueue* and
// AudioFileStream* function, setCategory or setActive. nth counts the function's calls from now
// on: 1 is the next call; a call that the fake refuses on its own still counts and keeps its own
// status. For setCategory and setActive any status makes the call return false.
void failCall(std::string_view function, OSStatus status, int nth = 1);
// The next call raises exception, after its log line: raiseOnCall("setActive", PlatformException("busy")).
void raiseOnCall(std::string_view function, std::exception_ptr exception);
template <class Exception>
void raiseOnCall(std::string_view function, const Exception& exception) {
  raiseOnCall(function, std::make_exception_ptr(exception));
}

// ---------------------------------------------------------------------------------------------
// Output queues.

struct EnqueuedBuffer {
  AudioQueueBufferRef handle = nullptr;
  std::vector<uint8_t> bytes;  // a copy, taken at the enqueue
  uint32_t packets = 0;
  std::vector<AudioStreamPacketDescription> descriptions;
  bool returned = false;  // the output callback has been called with it
};

// A copy of what the fake knows about one queue.
struct QueueState {
  int id = 0;  // q=N
  AudioStreamBasicDescription format{};
  std::vector<EnqueuedBuffer> enqueued;  // every accepted enqueue, oldest first
  bool started = false;                  // AudioQueueStart has succeeded at least once
  bool paused = false;                   // AudioQueuePause since the last start
  bool disposed = false;
  bool running = false;         // what reportRunning() last said
  std::optional<float> volume;  // the last volume set
  double sampleTime = 0.0;      // what setSampleTime() last said

  // Enqueued buffers that have not come back through the output callback yet.
  size_t waitingBuffers() const;
  // The bytes of every enqueue, in order: compare with the audio that was fed.
  std::vector<uint8_t> allEnqueuedBytes() const;
};

class FakeQueue;

// A test's handle on one fake queue. Cheap to copy; its state stays readable after disposal.
// Every callback it triggers runs on the queue's callback thread, one at a time, in order, and none
// runs once the queue has been disposed of.
class Queue {
 public:
  QueueState state() const;

  // Plays back the oldest enqueued buffer not yet played back: calls the output callback with it on
  // the callback thread and returns once the callback has returned. Fails when no buffer is waiting
  // or the queue has been disposed of.
  [[nodiscard]] bool playBack();
  // Plays back, one after another, every buffer that is waiting now.
  [[nodiscard]] bool playBackAll();
  // Every waiting buffer comes back at the same moment, each from a thread of its own; returns once
  // every callback has returned. The real queue never calls back concurrently: this is for
  // thread-safety tests of what the callback shares with other threads.
  [[nodiscard]] bool playBackFromManyThreads();
  // Sets the state that AudioQueueGetProperty(IsRunning) reads, then calls the running-state
  // listener on the callback thread; returns once it has returned. AudioQueueStart and
  // AudioQueueStop never change it: the test decides when the queue runs and when it has played out.
  [[nodiscard]] bool reportRunning(bool running);
  // The position that AudioQueueGetCurrentTime reports once the queue has been started; before the
  // first start it fails with kAudioQueueErr_NotStarted, as the real one does.
  void setSampleTime(double sampleTime);

 private:
  friend Queue queue(int id);
  explicit Queue(std::shared_ptr<FakeQueue> queue);
  std::shared_ptr<FakeQueue> queue_;  // null when the test asked for a queue that does not exist
};

// How many queues the test has created.
size_t queueCount();
// The test's queue q=id, or its most recent one; fails the test when there is none.
Queue queue(int id);
Queue lastQueue();

// ---------------------------------------------------------------------------------------------
// Stream parsers.
//
// By default a parser's first AudioFileStreamParseBytes reports kAudioFileStreamProperty_DataFormat
// and then kAudioFileStreamProperty_ReadyToProducePackets through the property listener; then every
// call cuts the bytes it has (a remainder carries over to the next call) into packets of
// kDefaultMp3PacketSize and delivers the complete ones, with descriptions, in one packets callback.
// AudioFileStreamGetProperty(DataFormat) returns the data format.

// MPEG-2 Layer III, 16000 Hz, mono, 576 frames per packet.
AudioStreamBasicDescription defaultMp3Format();
inline constexpr uint32_t kDefaultMp3PacketSize = 418;

void setParserDataFormat(const AudioStreamBasicDescription& format);

class FakeParser;

// What a scripted parser behaviour can do within one AudioFileStreamParseBytes call. Reports and
// deliveries reach the player synchronously, on the calling thread, as the real parser's do.
class ParseContext {
 public:
  int parser() const;  // s=N
  AudioFileStreamID handle() const;
  int call() const;  // 1 for the parser's first AudioFileStreamParseBytes
  std::span<const uint8_t> bytes() const;

  void reportProperty(AudioFileStreamPropertyID property);
  // Packet count = descriptions.size().
  void deliverPackets(std::span<const uint8_t> data, std::span<const AudioStreamPacketDescription> descriptions);
  // What the default behaviour does with this call's bytes.
  OSStatus parseByDefault();

 private:
  friend class FakeParser;
  ParseContext(FakeParser& parser, std::span<const uint8_t> bytes, int call);
  FakeParser& parser_;
  const std::span<const uint8_t> bytes_;
  const int call_;
};

// Replaces what every AudioFileStreamParseBytes of the test does; its result is the call's status.
using ParserBehaviour = std::function<OSStatus(ParseContext& context)>;
void setParserBehaviour(ParserBehaviour behaviour);

// ---------------------------------------------------------------------------------------------
// The audio session and the application.
//
// AudioSession::sharedInstance() and Application::sharedApplication() answer as the real ones do
// and their host side works as the real one: notifications go out from the session's serial
// queue, and AudioQueueStart is refused with "!int" while the session is interrupted and with
// "!pla" while the application is in the background. These helpers wait until every handler has
// returned.

// AudioSession::beginInterruption() / endInterruption(), then waitForSessionNotifications().
[[nodiscard]] bool beginInterruption();
[[nodiscard]] bool endInterruption();
// Posts an interruption notification with type under AVAudioSessionInterruptionTypeKey (any
// number), or without user info when type is absent; the interrupted state does not change.
[[nodiscard]] bool postInterruption(std::optional<int64_t> type);
// Waits until every session notification posted so far has been handled.
[[nodiscard]] bool waitForSessionNotifications();

}  // namespace fake
