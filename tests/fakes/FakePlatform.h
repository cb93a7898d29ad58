// The platform stand-in that the player's unit tests link instead of the real audio services.
//
// It replaces the output queue (AudioQueue*), the stream parser (AudioFileStream*), AudioSession,
// Application and NSLog; the work queues and the notification centre are the real ones. It
//  - records every call, in call order, as one line of text in one log;
//  - makes the n-th call of a function return a chosen status or raise a chosen exception;
//  - plays enqueued buffers back and reports running-state changes on command, on the thread that
//    gives the command, so a test decides exactly when the player hears from its queue;
//  - "parses" MP3 by a simple rule that a test can replace, and never decodes anything.
//
// Call fake::reset() at the start of every test. Every function may be called from any thread.
// Waits fail the current test after kWaitTimeout and return false instead of hanging.
//
// Log lines: "AudioQueueEnqueueBuffer q=1 buf=3 bytes=5120 packets=0", "AudioQueueStop q=1
// immediate=0", "AudioFileStreamClose s=1", "setActive 1 options=1", "NSLog <message>"; q=N and s=N
// count the test's queues and parsers from 1, buf=N a queue's buffers. A refused call ends in
// " -> " and its status as four characters ("AudioQueueStart q=1 -> !int"), a call that raises in
// " -> raises"; a refused call has no other effect. Handles that the test did not get from the fake
// (a previous test's) are refused without a line.
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

// Starts a new test: a new log, no chosen results, default parsing, a session with no category,
// inactive and not interrupted, the application in the foreground. Session notifications still
// under way are delivered first; the previous test's queues are disposed of.
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
// remote-control registrations run there).
[[nodiscard]] bool waitForMainQueue();

// The nth call of function (the first word of its log line) from now on fails with status; for
// setCategory and setActive any status makes the call return false.
void failCall(std::string_view function, OSStatus status, int nth = 1);
// The next call of function raises exception, after its log line.
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

  size_t waitingBuffers() const;                  // enqueued, not yet played back
  std::vector<uint8_t> allEnqueuedBytes() const;  // in enqueue order
};

struct FakeQueue;

// A test's handle on one fake queue; its state stays readable after disposal. The commands call
// the player on the calling thread and return once it has returned; false when there is nothing
// to play back or the queue has been disposed of.
class Queue {
 public:
  QueueState state() const;
  // Plays back the oldest enqueued buffer not yet played back: calls the output callback with it.
  [[nodiscard]] bool playBack();
  [[nodiscard]] bool playBackAll();
  // Sets what AudioQueueGetProperty(IsRunning) reads, then calls the running-state listener.
  // AudioQueueStart and AudioQueueStop never change it: the test decides when the queue has played out.
  [[nodiscard]] bool reportRunning(bool running);
  // The position that AudioQueueGetCurrentTime reports once the queue has been started.
  void setSampleTime(double sampleTime);

 private:
  friend Queue queue(int id);
  explicit Queue(std::shared_ptr<FakeQueue> queue) : queue_(std::move(queue)) {}
  std::shared_ptr<FakeQueue> queue_;  // null when the test asked for a queue that does not exist
};

size_t queueCount();
// The test's queue q=id, or its most recent one; fails the test when there is none.
Queue queue(int id);
Queue lastQueue();

// ---------------------------------------------------------------------------------------------
// Stream parsers.
//
// By default a parser's first AudioFileStreamParseBytes reports kAudioFileStreamProperty_DataFormat
// and then kAudioFileStreamProperty_ReadyToProducePackets; then every call cuts the bytes it has (a
// remainder carries over) into packets of kDefaultMp3PacketSize and delivers the complete ones in
// one packets callback. AudioFileStreamGetProperty(DataFormat) returns the data format.

// MPEG-2 Layer III, 16000 Hz, mono, 576 frames per packet.
AudioStreamBasicDescription defaultMp3Format();
inline constexpr uint32_t kDefaultMp3PacketSize = 418;

void setParserDataFormat(const AudioStreamBasicDescription& format);

struct FakeParser;

// What a parser behaviour can do within one AudioFileStreamParseBytes call; its reports and
// deliveries reach the player on the calling thread, as the real parser's do.
class ParseContext {
 public:
  ParseContext(FakeParser& parser, std::span<const uint8_t> bytes) : parser_(parser), bytes_(bytes) {}
  int parser() const;  // s=N
  AudioFileStreamID handle() const;
  int call() const;  // 1 for the parser's first AudioFileStreamParseBytes
  std::span<const uint8_t> bytes() const { return bytes_; }

  void reportProperty(AudioFileStreamPropertyID property);
  void deliverPackets(std::span<const uint8_t> data, std::span<const AudioStreamPacketDescription> descriptions);
  OSStatus parseByDefault();

 private:
  FakeParser& parser_;
  const std::span<const uint8_t> bytes_;
};

// Replaces what every AudioFileStreamParseBytes of the test does; its result is the call's status.
using ParserBehaviour = std::function<OSStatus(ParseContext& context)>;
void setParserBehaviour(ParserBehaviour behaviour);

// ---------------------------------------------------------------------------------------------
// The audio session. Its notifications go out from the session's serial queue, as the real one's;
// AudioQueueStart is refused with "!int" while it is interrupted and with "!pla" while the
// application is in the background. These return once every handler has returned.

[[nodiscard]] bool beginInterruption();
[[nodiscard]] bool endInterruption();
[[nodiscard]] bool waitForSessionNotifications();

}  // namespace fake
