// The platform stand-in that the player's unit tests link instead of the real audio services: the
// output queue, the stream parser, AudioSession, Application and NSLog (the work queues and the
// notification centre are the real ones). It logs every call as one line, lets a test choose the
// n-th call's status or exception, and plays buffers back and reports running-state changes only
// on the test's command, on the commanding thread, so a test decides when the player hears from
// its queue. Waits fail the current test after kWaitTimeout instead of hanging.
//
// Log lines: "AudioQueueDispose q=1 immediate=1", "setActive 1 options=1", "NSLog <message>"; q=N
// and s=N count the test's queues and parsers from 1. A refused call ends in " -> " and its status
// as four characters, a call that raises in " -> raises". A previous test's handles are refused
// without a line.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Audio/Platform/AudioFileStream.h"
#include "Audio/Platform/AudioQueue.h"

namespace fake {

inline constexpr std::chrono::seconds kWaitTimeout{30};

// Starts a new test on a new world; the previous test's session notifications are delivered first.
void reset();

// The call log; calls(text) keeps only the lines that contain text.
std::vector<std::string> calls();
std::vector<std::string> calls(std::string_view text);
size_t countCalls(std::string_view text);
void clearCalls();

[[nodiscard]] bool waitForCall(std::string_view text);
// The remote-control registrations run on the main work queue.
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

struct EnqueuedBuffer {
  AudioQueueBufferRef handle = nullptr;
  std::vector<uint8_t> bytes;
  uint32_t packets = 0;
  std::vector<AudioStreamPacketDescription> descriptions;
  bool returned = false;  // the output callback has been called with it
};

struct QueueState {
  int id = 0;  // q=N
  AudioStreamBasicDescription format{};
  std::vector<EnqueuedBuffer> enqueued;
  bool started = false;
  bool paused = false;
  bool disposed = false;
  bool running = false;
  double sampleTime = 0.0;

  size_t waitingBuffers() const;                  // enqueued, not yet played back
  std::vector<uint8_t> allEnqueuedBytes() const;  // in enqueue order
};

struct FakeQueue;

// A test's handle on one fake queue. The commands call the player on the calling thread; false
// when there is nothing to play back or the queue has been disposed of.
class Queue {
 public:
  QueueState state() const;
  [[nodiscard]] bool playBack();  // the oldest buffer not yet played back
  // Start and stop never change the running state: the test decides when the queue has played out.
  [[nodiscard]] bool reportRunning(bool running);
  void setSampleTime(double sampleTime);

 private:
  friend Queue queue(int id);
  explicit Queue(std::shared_ptr<FakeQueue> queue) : queue_(std::move(queue)) {}
  std::shared_ptr<FakeQueue> queue_;  // null when the test asked for a queue that does not exist
};

// Fails the test when there is no such queue.
Queue queue(int id);
Queue lastQueue();

// By default a parser's first call reports the data format and ready-to-produce-packets, and every
// call delivers the complete kDefaultMp3PacketSize packets of what it has (a remainder carries over).

// MPEG-2 Layer III, 16000 Hz, mono, 576 frames per packet.
AudioStreamBasicDescription defaultMp3Format();
inline constexpr uint32_t kDefaultMp3PacketSize = 418;

void setParserDataFormat(const AudioStreamBasicDescription& format);

struct FakeParser;

// What a parser behaviour can do within one AudioFileStreamParseBytes call.
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

using ParserBehaviour = std::function<OSStatus(ParseContext& context)>;
void setParserBehaviour(ParserBehaviour behaviour);

// AudioQueueStart is refused with "!int" while the session is interrupted and with "!pla" while the
// application is in the background. These return once every session handler has returned.
[[nodiscard]] bool beginInterruption();
[[nodiscard]] bool endInterruption();

}  // namespace fake
