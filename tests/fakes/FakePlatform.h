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
//   AudioQueueNewOutput rate=16000 fmt=lpcm q=1
//   AudioQueueAllocateBuffer q=1 size=5120 buf=1
//   AudioQueueSetParameter q=1 volume=0.5              another parameter: param=7 value=0.5
//   AudioQueueAddPropertyListener q=1 prop=aqrn
//   AudioQueueEnqueueBuffer q=1 buf=3 bytes=5120 packets=0
//   AudioQueueStart q=1
//   AudioQueuePause q=1
//   AudioQueueStop q=1 immediate=0
//   AudioQueueDispose q=1 immediate=1
//   AudioQueueGetCurrentTime q=1
//   AudioQueueGetProperty q=1 prop=aqrn
//   AudioFileStreamOpen s=1
//   AudioFileStreamParseBytes s=1 bytes=1000
//   AudioFileStreamGetProperty s=1 prop=dfmt
//   AudioFileStreamClose s=1
//   setCategory AVAudioSessionCategoryPlayback options=0
//   setActive 1 options=1
//   beginReceivingRemoteControlEvents                  runs later, on the main queue
//   endReceivingRemoteControlEvents
//   NSLog <the formatted message>
// A refused call ends in " -> " and its status, as four characters when they are printable
// ("AudioQueueStart q=1 -> !int"), else as a number; a call that raises ends in " -> raises". A
// refused call has no other effect. An unknown handle shows as q=? or s=?; the handles of a
// previous test are refused without a line, so late work of an old player leaves no trace.
// Queue and parser handles are never reused in the process, buffer handles never within a test.
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
// category, inactive, not interrupted) and the application (foreground, not receiving remote
// control events). Session notifications still under way are delivered first. The previous test's
// queues are disposed of: a callback of theirs already running finishes on its own, none starts.
void reset();

// ---------------------------------------------------------------------------------------------
// The call log.

std::vector<std::string> calls();
// Only the lines that contain text.
std::vector<std::string> calls(std::string_view text);
size_t countCalls(std::string_view text);
void clearCalls();

// Wait until a line contains text, a line satisfies matches, or count lines contain text.
[[nodiscard]] bool waitForCall(std::string_view text);
[[nodiscard]] bool waitForCall(const std::function<bool(const std::string& line)>& matches);
[[nodiscard]] bool waitForCalls(std::string_view text, size_t count);
// Waits until every task posted to the main work queue before this call has run (the
// remote-control registrations run there). Lets a test check that something did not happen.
[[nodiscard]] bool waitForMainQueue();

// ---------------------------------------------------------------------------------------------
// Chosen results. function is the first word of the call's log line; the scriptable ones are every
// AudioQueue* and AudioFileStream* function, setCategory and setActive (an unknown name fails the
// test). nth counts the function's calls from now on: 1 is the next call. A call that the fake
// refuses on its own (a disposed queue, an interrupted session) still counts, and keeps its own
// status. For setCategory and setActive any status makes the call return false.

// The nth call returns status.
void failCall(std::string_view function, OSStatus status, int nth = 1);
// Every call from the nth on returns status.
void failCallsFrom(std::string_view function, OSStatus status, int nth = 1);
// The nth call raises exception, after its log line, for example
// raiseOnCall("setActive", PlatformException("busy")) or raiseOnCall("setActive", std::runtime_error("bug")).
void raiseOnCall(std::string_view function, std::exception_ptr exception, int nth = 1);
template <class Exception>
void raiseOnCall(std::string_view function, const Exception& exception, int nth = 1) {
  raiseOnCall(function, std::make_exception_ptr(exception), nth);
}

// ---------------------------------------------------------------------------------------------
// Output queues.

struct EnqueuedBuffer {
  int buffer = 0;  // buf=N
  AudioQueueBufferRef handle = nullptr;
  std::vector<uint8_t> bytes;  // a copy, taken at the enqueue
  uint32_t packets = 0;
  std::vector<AudioStreamPacketDescription> descriptions;
  bool returned = false;  // the output callback has been called with it
};

// A copy of what the fake knows about one queue.
struct QueueState {
  int id = 0;  // q=N
  AudioQueueRef handle = nullptr;
  AudioStreamBasicDescription format{};
  std::vector<AudioQueueBufferRef> buffers;  // allocated, in order: buffers[0] is buf=1
  std::vector<EnqueuedBuffer> enqueued;      // every accepted enqueue, oldest first
  bool started = false;                      // AudioQueueStart has succeeded at least once
  bool paused = false;                       // AudioQueuePause since the last start
  bool stopped = false;                      // AudioQueueStop since the last start
  bool disposed = false;
  bool running = false;         // what reportRunning() last said
  std::optional<float> volume;  // the last volume set
  double sampleTime = 0.0;      // what setSampleTime() last said
  AudioQueueOutputCallback outputCallback = nullptr;
  void* outputUserData = nullptr;
  AudioQueuePropertyListenerProc runningListener = nullptr;
  void* runningListenerUserData = nullptr;

  // Enqueued buffers that have not come back through the output callback yet.
  size_t waitingBuffers() const;
  // The bytes of every enqueue, in order: compare with the audio that was fed.
  std::vector<uint8_t> allEnqueuedBytes() const;
};

class FakeQueue;

// A test's handle on one fake queue. Cheap to copy; its state stays readable after disposal.
// Every callback it triggers runs on the queue's callback thread, one at a time, in order, and none
// runs once the queue has been disposed of. To imitate a callback that was already running when the
// queue was disposed of, call state().outputCallback or runningListener from the test itself.
class Queue {
 public:
  QueueState state() const;
  AudioQueueRef handle() const;

  // Plays back the oldest enqueued buffer that has not been played back: calls the output callback
  // with it on the callback thread and returns once the callback has returned. Fails when no buffer
  // is waiting or the queue has been disposed of.
  [[nodiscard]] bool playBack();
  // The same, but returns as soon as the callback is scheduled.
  [[nodiscard]] bool playBackWithoutWaiting();
  // Plays back, one after another, every buffer that is waiting now.
  [[nodiscard]] bool playBackAll();
  // Every waiting buffer comes back at the same moment, each from a thread of its own; returns once
  // every callback has returned. The real queue never calls back concurrently: this is for
  // thread-safety tests of what the callback shares with other threads.
  [[nodiscard]] bool playBackFromManyThreads();
  // Sets the state that AudioQueueGetProperty(IsRunning) reads, then calls the running-state
  // listener (if one is registered) on the callback thread; returns once it has returned.
  // AudioQueueStart and AudioQueueStop never change it on their own: the test decides when the
  // queue runs and when it has played out.
  [[nodiscard]] bool reportRunning(bool running);
  // The position that AudioQueueGetCurrentTime reports once the queue has been started; before the
  // first start it fails with kAudioQueueErr_NotStarted, as the real one does.
  void setSampleTime(double sampleTime);

 private:
  friend Queue queue(int id);
  friend Queue lastQueue();
  explicit Queue(std::shared_ptr<FakeQueue> queue);
  std::shared_ptr<FakeQueue> queue_;  // null when the test asked for a queue that does not exist
};

size_t queueCount();
// The test's queue q=id; fails the test when there is none (the handle then controls nothing).
Queue queue(int id);
// The test's most recent queue.
Queue lastQueue();

// ---------------------------------------------------------------------------------------------
// Stream parsers.
//
// By default a parser's first AudioFileStreamParseBytes reports kAudioFileStreamProperty_DataFormat
// and then kAudioFileStreamProperty_ReadyToProducePackets through the property listener; then every
// call cuts the bytes it has (a remainder carries over to the next call) into packets of the packet
// size and delivers the complete ones, with descriptions, in one packets callback.
// AudioFileStreamGetProperty(DataFormat) returns the data format.

// MPEG-2 Layer III, 16000 Hz, mono, 576 frames per packet.
AudioStreamBasicDescription defaultMp3Format();
inline constexpr uint32_t kDefaultMp3PacketSize = 418;

void setParserDataFormat(const AudioStreamBasicDescription& format);
void setParserPacketSize(uint32_t bytes);

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
  // Without descriptions (a null pointer), with any packet count.
  void deliverPackets(std::span<const uint8_t> data, uint32_t packetCount);
  // What the default behaviour does with this call's bytes.
  OSStatus parseByDefault();

 private:
  friend class FakeParser;
  ParseContext(FakeParser& parser, std::span<const uint8_t> bytes, int call, uint32_t packetSize);
  FakeParser& parser_;
  const std::span<const uint8_t> bytes_;
  const int call_;
  const uint32_t packetSize_;
};

// Replaces what every AudioFileStreamParseBytes of the test does; its result is the call's status.
// An empty behaviour restores the default.
using ParserBehaviour = std::function<OSStatus(ParseContext& context)>;
void setParserBehaviour(ParserBehaviour behaviour);

// ---------------------------------------------------------------------------------------------
// The audio session and the application.
//
// AudioSession::sharedInstance() and Application::sharedApplication() answer as the real ones do
// (category, activity, interruption, background state) and their host side works as the real one:
// notifications go out from the session's serial queue, and AudioQueueStart is refused with
// "!int" while the session is interrupted and with "!pla" while the application is in the
// background. These helpers wait until every handler has returned.

// AudioSession::beginInterruption() / endInterruption(), then waitForSessionNotifications().
[[nodiscard]] bool beginInterruption();
[[nodiscard]] bool endInterruption();
// Posts an interruption notification with type under AVAudioSessionInterruptionTypeKey (any
// number), or without user info when type is absent; the interrupted state does not change.
[[nodiscard]] bool postInterruption(std::optional<int64_t> type);
// Waits until every session notification posted so far has been handled.
[[nodiscard]] bool waitForSessionNotifications();

}  // namespace fake
