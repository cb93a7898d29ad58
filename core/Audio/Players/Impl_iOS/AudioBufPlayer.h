// AudioBufPlayer plays the audio of a speech engine while the engine is still producing it.
//
// A sentence starts with playData (its first chunk) and grows with appendAudioData; the player
// parses, packs and enqueues each chunk on the caller's thread, starts sound as soon as the first
// buffer is queued, and tells its delegate what happens (AudioBufPlayerDelegate.h says on which
// threads). While all 20 queue buffers are in flight, and while a sentence that has not started
// sound yet is paused or interrupted, the feeding call waits. A sentence ends when everything
// received has been played, when its stream fails, or on stop.
//
// Locks, outermost first: playerStatusMutex (with playerStatusCondition; every wake-up is a
// broadcast), the player's recursive objectLock (stream format handling and session
// configuration), then the class-wide recursive lock of the process-wide session count.
// Callbacks of the output queue never block on playerStatusMutex: they post tasks that take it.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Audio/Platform/PlatformTypes.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayerDelegate.h"
#include "Audio/Players/qen_AudioPlayer.h"
#include "audiobufplayer_export.h"

struct Notification;

class AUDIOBUFPLAYER_EXPORT AudioBufPlayer : public std::enable_shared_from_this<AudioBufPlayer> {
 public:
  // Status word flags.
  static constexpr uint16_t PS_ACTIVE = 0x0001;              // a sentence is under way
  static constexpr uint16_t PS_USER_PAUSED = 0x0004;         // the client asked for a pause
  static constexpr uint16_t PS_QUEUE_PAUSED = 0x0008;        // the output queue is paused
  static constexpr uint16_t PS_QUEUE_STARTED = 0x0010;       // the sentence's queue has been started
  static constexpr uint16_t PS_ENDING = 0x0020;              // run-out point reached; appends refused
  static constexpr uint16_t PS_WAITING_FOR_BUFFER = 0x0100;  // every buffer is in the queue
  static constexpr uint16_t PS_INTERRUPTED = 0x0400;         // held by an interruption or the background
  static constexpr uint16_t PS_STOPPED = 0x0800;             // requests refused until start

  static constexpr size_t kNumberOfBuffers = 20;
  static constexpr uint32_t kBufferByteSize = 5120;
  static constexpr uint32_t kMaxPacketDescriptions = 512;

  // A stopped player; call start before the first sentence. Returns null when it cannot be built.
  // category: the session category applied while managing the session; absent and empty differ
  // (an empty one is applied, an absent one is not).
  static std::shared_ptr<AudioBufPlayer> initWithAudioSessionCategory(std::optional<std::string> category,
                                                                      uint64_t audioSessionCategoryOptions,
                                                                      bool enableAudioSesionManagement);
  // Stops the player (the sound ends at once). Safe on any thread, a callback thread included;
  // posted tasks keep the player alive until they have run, so this runs after the last of them.
  ~AudioBufPlayer();

  AudioBufPlayer(const AudioBufPlayer&) = delete;
  AudioBufPlayer& operator=(const AudioBufPlayer&) = delete;

  // --- Playback requests. Any thread; one sentence at a time. ---

  // Starts a sentence with its first chunk. While a sentence is under way the chunk is dropped
  // (result OK); an empty or null chunk ends the sentence at once with PlaybackFinished. A non-null
  // delegate becomes the player's delegate; offset (seconds) is added to every reported length and
  // position of the sentence. Returns STOPPED before start, UNSUPPORTED_FORMAT, FAILED_INIT_STREAM
  // or FAILED_PARSE_STREAM; blocks while all buffers are in flight or a pause holds the first start.
  AudioBufPlayerError playData(std::span<const uint8_t> data, QEN_TTS::Audio::AudioPlayerAudioFormats audioFormat,
                               const std::shared_ptr<AudioBufPlayerDelegate>& withDelegate, double audioOffset);
  // Adds a chunk to the sentence under way, or starts one (as playData) when none is. Returns
  // SWITCH_FORMAT for another format than the sentence's, and once the sentence has reached its
  // run-out point (aboutToEnd was sent): the producer was slower than playback.
  AudioBufPlayerError appendAudioData(std::span<const uint8_t> data,
                                      QEN_TTS::Audio::AudioPlayerAudioFormats audioFormat,
                                      const std::shared_ptr<AudioBufPlayerDelegate>& withDelegate,
                                      double audioOffset);

  // --- Transport controls. Any thread. ---
  // Neither these nor the playback requests may be called from inside a delegate call made with the
  // mutex held (AudioBufPlayerDelegate.h): such a call is refused with an ERROR line and has no
  // effect (a request returns STOPPED), instead of waiting for ever on the mutex its thread holds.

  // Linear gain of the output queue; applied to later queues only when 0.0 or more.
  void setVolume(float volume);
  // Pauses the sentence (or remembers the pause until the next one); always reports
  // PlayerWasPaused with USER.
  void pause();
  // Lifts the client's pause and any interruption hold of the sentence under way.
  void resume();
  // Lets the player take sentences again.
  void start();
  // Ends the sentence at once, sound included, without PlaybackFinished; requests are refused
  // until start.
  void stop();

  // --- Audio session. Any thread. ---

  // Process-wide count of session uses: the first use activates the shared session (and registers
  // for remote-control events), the last deactivates it, when the caller manages the session.
  static void SetAudioSessionActivationStatus(bool activate, bool isManagementEnabled);
  // Each applies at once while the player has the session in use, else at its next use.
  void updateAVSessionManagementEnabled(bool enabled);
  void updateAudioCategoryOptions(uint64_t options);
  void updateAudioCategory(const std::optional<std::string>& category);

  // --- Properties. ---

  std::optional<std::string> audioCategory() const;
  void setAudioCategory(std::optional<std::string> category);
  uint64_t audioCategoryOptions() const;
  void setAudioCategoryOptions(uint64_t options);
  bool AVSessionManagmentEnabled() const;
  void setAVSessionManagmentEnabled(bool enabled);
  // Held weakly: reads as null once the delegate is gone.
  std::shared_ptr<AudioBufPlayerDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<AudioBufPlayerDelegate>& delegate);
  float volume() const;
  double reportAudioLenOffset() const;
  void setReportAudioLenOffset(double offset);
  int64_t audioSessionSetCount() const;
  void setAudioSessionSetCount(int64_t count);

  // --- Session notification handlers, called by the notification centre on the posting thread. ---

  void audioSessionInterrupted(const Notification& notification);
  void routeChange(const Notification& notification);

 private:
  friend class AudioBufPlayerTestPeer;
  friend void AudioQueueFillBuffersCallback(void* pSelf, AudioQueueRef inAQ, AudioQueueBufferRef inBuffer);
  friend void AudioQueueIsRunningCb(void* pSelf, AudioQueueRef inAQ, AudioQueuePropertyID inID);
  friend void AudioPropertyListenerProc(void* inClientData, AudioFileStreamID inAudioFileStream,
                                        AudioFileStreamPropertyID inPropertyID, uint32_t* ioFlags);
  friend void AudioPacketsProc(void* inClientData, uint32_t inNumberBytes, uint32_t inNumberPackets,
                               const void* inInputData, AudioStreamPacketDescription* inPacketDescriptions);

  AudioBufPlayer(std::optional<std::string> category, uint64_t options, bool enableAudioSesionManagement);

  // The player behind the client data handed to the platform, or null once it is gone.
  static std::shared_ptr<AudioBufPlayer> fromClientData(void* clientData);
  void* clientData() const;

  // Status word. Changed under playerStatusMutex, except outputPlayProgress's PS_ENDING.
  bool hasStatus(uint16_t flags) const;
  void setStatus(uint16_t flags);
  void clearStatus(uint16_t flags);
  // Clears every flag but PS_STOPPED, which keeps its value: the request under way is over.
  void clearRequestStatus();
  // Makes the word exactly PS_ACTIVE for a request with an identity of its own.
  void beginRequest();
  // Caller holds playerStatusMutex. Whether queue is the one the request under way opened: events
  // of any other queue, or of a queue whose request has ended, must not act on the request.
  bool isQueueOfRequestUnderWay(AudioQueueRef queue) const;
  // Caller holds playerStatusMutex; it is released while waiting.
  void waitForStatusChange();
  void broadcastStatusChange();

  // Notifications posted to the global work queue; lost when no delegate is set.
  void notifyDelegateOfError(AudioBufPlayerError error, const std::string& errorDescription);
  void NotifyDelegate_speechPlayerDidPaused(AudioBufPlayerPauseSource source);
  void NotifyDelegate_speechPlayerDidResumed();
  void NotifyDelegate_speechPlayerDidFinished();
  // Reports a failed platform call as "<name> returned error %ld (%s)".
  void notifyDelegateOfPlatformError(AudioBufPlayerError error, const char* call, OSStatus status);

  // Sends a delegate call at once, on this thread, with playerStatusMutex held; nothing without a
  // delegate. The thread remembers that it is inside, so that refusesReentry can tell.
  void tellDelegateWhileLocked(const std::function<void(AudioBufPlayerDelegate&)>& call);
  // Whether operation was called from inside tellDelegateWhileLocked of this player on this thread;
  // then it writes the ERROR line that names the rule, and the caller returns without effect.
  bool refusesReentry(const char* operation) const;

  // Producers are served one at a time: waits until no other feeding call is inside, and lets the
  // next one in when it ends (at the latest on destruction). Caller holds playerStatusMutex.
  class ProducerTurn {
   public:
    explicit ProducerTurn(AudioBufPlayer& player);
    ~ProducerTurn();
    void end();

   private:
    AudioBufPlayer& player_;
    bool held_ = true;
  };

  // Stream opening and intake; caller holds playerStatusMutex.
  AudioBufPlayerError initStreamForPCM(double sampleRate);
  AudioBufPlayerError initStreamForAudioStreamFormat(AudioFileTypeID fileType);
  AudioBufPlayerError receiveMP3Stream(std::span<const uint8_t> data);
  AudioBufPlayerError receivePCM8KStream(std::span<const uint8_t> data);
  AudioBufPlayerError receivePCM16KStream(std::span<const uint8_t> data);
  AudioBufPlayerError receiveSupportedStreamPackage(std::span<const uint8_t> data, AudioFileTypeID ofType);
  AudioBufPlayerError receivePCMStream(std::span<const uint8_t> data);

  // Stream format handling; runs inside AudioFileStreamParseBytes.
  void AudioPropertyFoundForStream(AudioFileStreamID stream, AudioFileStreamPropertyID propertyID, uint32_t* Flags);

  // Packing; caller holds playerStatusMutex.
  void AudioPacketsFoundCallback(uint32_t byteCount, uint32_t packetCount, const void* AudioData,
                                 const AudioStreamPacketDescription* packetDescriptions,
                                 AudioFileStreamID fromAudioStream);
  void updateProgressEstimations(uint32_t packetCount);
  void packByDescription(uint32_t byteCount, uint32_t packetCount, const uint8_t* data,
                         const AudioStreamPacketDescription* descriptions);
  void packByBytes(uint32_t byteCount, uint32_t packetCount, const uint8_t* data);
  void handOverStagedAudio(bool withDescriptions);

  // Output queue lifecycle; caller holds playerStatusMutex.
  OSStatus openAudioQueueWithDescription(AudioStreamBasicDescription description);
  void resetAudioQueue();
  void setPlayerStopped();

  // Buffer pool; caller holds playerStatusMutex.
  void enqueData(std::span<const uint8_t> audioData, const AudioStreamPacketDescription* withDescriptions,
                 uint32_t packetNumber);
  void AudioQueue_releasedBuffer(AudioQueueRef inAQ, AudioQueueBufferRef inBuffer);
  // The queue's callback thread: notes a played buffer; true when no return of the noted buffers is
  // under way yet, and the caller is to see to one.
  bool notePlayedBuffer(AudioQueueRef queue, AudioQueueBufferRef buffer);
  // Returns every buffer played so far to the pool; caller holds playerStatusMutex.
  void returnPlayedBuffers();
  // Caller holds playerStatusMutex. Whether any slot holds a buffer that is free or will come back;
  // when none does, the request cannot go on and endRequestWithoutBuffers ends it.
  bool aBufferCanComeBack() const;
  void endRequestWithoutBuffers();

  // Queue start and running state; caller holds playerStatusMutex.
  void beginPlaying();
  void AudioQueue_newRunningState(AudioQueueRef inAQ, bool isRunning);
  void endPlayback(AudioQueueRef stoppedQueue);
  // Ends the request under way: its queue goes, and every flag but PS_STOPPED. The error that ended
  // it is its end for the client. Caller holds playerStatusMutex.
  void endRequest();
  // Ends it with the PlaybackFinished its client waits for: its queue played out, or an error that
  // leaves other sentences playing on (no buffer left) made it impossible to go on.
  void finishRequest();
  bool keepListeningForInterruptionEnd();

  // Pause arbitration; caller holds playerStatusMutex.
  void pauseIfNeeded();
  void resumeIfNeeded();
  // Clears the reasons to hold the request under way and restarts it if none is left.
  void liftHold(uint16_t reasons);

  // Session uses of this player; caller may hold playerStatusMutex.
  void setOrResetAVSession(bool reset);
  void subscribeToSessionNotifications();
  void unsubscribeFromSessionNotifications();

  // Progress poll after queue played a buffer; runs on its callback thread without playerStatusMutex.
  void outputPlayProgress(AudioQueueRef queue);
  // Caller holds progressPollMutex. Whether a poll of queue may report on and end the request under way.
  bool pollMayActOn(AudioQueueRef queue) const;

  uint64_t clientId_ = 0;  // identifies this player to the platform's callbacks; set once by the factory

  bool isListeningInterruptions = false;  // guarded by objectLock
  AudioFileStreamID audioFileStream = nullptr;
  AudioQueueRef audioQueue = nullptr;
  uint64_t audioQueueRequest = 0;  // the request that opened audioQueue
  std::array<AudioQueueBufferRef, kNumberOfBuffers> audioQueueBuffer{};
  std::array<bool, kNumberOfBuffers> FreeAudioQueueBuffers{};
  size_t lostBufferSlots = 0;  // slots of the current queue whose enqueue failed
  // Played buffers on their way back to the pool. The queue plays them back in batches; they go
  // back together, so that the producer waiting for them wakes once, not once a buffer.
  using PlayedBuffer = std::pair<AudioQueueRef, AudioQueueBufferRef>;
  std::mutex playedBuffersMutex;  // held for a few instructions, never while calling out
  std::vector<PlayedBuffer> playedBuffers;  // guarded by playedBuffersMutex
  std::vector<PlayedBuffer> returningBuffers;  // guarded by playerStatusMutex
  std::vector<uint8_t> tmpAudioBuffer;
  uint32_t descIndex = 0;
  std::array<AudioStreamPacketDescription, kMaxPacketDescriptions> packetDescs{};
  // Declared before the condition so that the condition is destroyed first.
  std::mutex playerStatusMutex;
  std::condition_variable playerStatusCondition;
  std::atomic<uint16_t> playerStatus{PS_STOPPED};
  bool producerInside = false;  // guarded by playerStatusMutex
  // The identity of the latest request: a queue may outlive its request (an empty first chunk ends
  // the request and leaves the queue playing out), and the next request may keep it until its own
  // format is known, so a queue handle cannot tell two requests apart. Changed under both
  // playerStatusMutex and progressPollMutex, read under either.
  uint64_t requestNumber = 0;
  std::atomic<uint64_t> receivedSamples{0};
  std::atomic<double> receivedAudioLength{0.0};  // read by the progress poll without the mutex
  std::atomic<double> _sampleRate{0.0};
  uint64_t SamplesPerPacket = 0;
  QEN_TTS::Audio::AudioPlayerAudioFormats _currentFormat = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM8K;
  std::atomic<bool> _AVSessionManagmentEnabled{false};
  std::atomic<float> _volume{0.5f};
  std::atomic<uint64_t> _audioCategoryOptions{0};
  std::atomic<double> _reportAudioLenOffset{0.0};
  std::atomic<int64_t> _audioSessionSetCount{0};

  // The progress poll runs without playerStatusMutex. This lock, held only for a few instructions and
  // never while calling out, keeps it from acting on a request with another request's queue: it
  // guards progressClock, and the status word's changes from one request to the next.
  std::mutex progressPollMutex;
  // What a poll needs to turn its queue's clock into the request's position, taken together when the
  // queue opened: a poll of an old queue must never read the rate of a new one.
  struct ProgressClock {
    AudioQueueRef queue = nullptr;  // the queue whose played buffers may end that request
    uint64_t request = 0;
    double sampleRate = 0.0;
    // What the request had received when the queue opened. A change of stream format mid-request
    // replaces the queue, whose clock starts again at 0, and drops what the old one had not played:
    // the request's position is this plus the new queue's.
    double startOffset = 0.0;
  };
  ProgressClock progressClock;  // guarded by progressPollMutex

  mutable std::mutex propertyMutex;
  std::optional<std::string> _audioCategory;        // guarded by propertyMutex
  std::weak_ptr<AudioBufPlayerDelegate> _delegate;  // guarded by propertyMutex

  std::recursive_mutex objectLock;

  // Process-wide session uses, guarded by classLock(), the innermost lock of the system.
  static std::recursive_mutex& classLock();
  static int32_t audioSessionUsageCount;
};
