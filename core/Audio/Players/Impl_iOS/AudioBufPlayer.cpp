// Construction, destruction, properties and the status word of the player.
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"

#include <new>
#include <unordered_map>

#include "Audio/Platform/AudioFileStream.h"

namespace {

// The platform's callbacks reach a player through an id, never through its address: a callback
// that starts while the player is being destroyed finds no entry (or an expired one) and returns,
// and a new player can never be taken for an old one.
class ClientRegistry {
 public:
  static ClientRegistry& instance() {
    static ClientRegistry* const registry = new ClientRegistry;
    return *registry;
  }

  uint64_t add(std::weak_ptr<AudioBufPlayer> player) {
    std::lock_guard lock(mutex_);
    const uint64_t id = ++lastId_;
    players_.emplace(id, std::move(player));
    return id;
  }

  void remove(uint64_t id) {
    std::lock_guard lock(mutex_);
    players_.erase(id);
  }

  std::shared_ptr<AudioBufPlayer> find(uint64_t id) {
    std::lock_guard lock(mutex_);
    const auto it = players_.find(id);
    return it == players_.end() ? nullptr : it->second.lock();
  }

 private:
  std::mutex mutex_;
  uint64_t lastId_ = 0;                                                  // guarded by mutex_
  std::unordered_map<uint64_t, std::weak_ptr<AudioBufPlayer>> players_;  // guarded by mutex_
};

}  // namespace

std::shared_ptr<AudioBufPlayer> AudioBufPlayer::initWithAudioSessionCategory(std::optional<std::string> category,
                                                                             uint64_t audioSessionCategoryOptions,
                                                                             bool enableAudioSesionManagement) {
  std::shared_ptr<AudioBufPlayer> player;
  try {
    player.reset(new AudioBufPlayer(std::move(category), audioSessionCategoryOptions, enableAudioSesionManagement));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  player->clientId_ = ClientRegistry::instance().add(player);
  // The client's references are counted apart from those of the player's own tasks: when the
  // client lets go, the player stops at once. A task that waits (for a pause to end, say) then
  // wakes and finishes, and the player is destroyed after the last task, instead of being kept
  // alive by a task waiting for a resume that no one can call any more.
  AudioBufPlayer* const raw = player.get();
  return std::shared_ptr<AudioBufPlayer>(raw, [player = std::move(player)](AudioBufPlayer*) mutable {
    player->stop();
    player.reset();
  });
}

AudioBufPlayer::AudioBufPlayer(std::optional<std::string> category, uint64_t options, bool enableAudioSesionManagement) {
  setAudioSessionSetCount(0);
  setAudioCategory(std::move(category));
  setAudioCategoryOptions(options);
  setReportAudioLenOffset(0.0);
  setAVSessionManagmentEnabled(enableAudioSesionManagement);
  playerStatus.store(PS_STOPPED);
  isListeningInterruptions = false;
  tmpAudioBuffer.reserve(kBufferByteSize);
  playedBuffers.reserve(kNumberOfBuffers);
  returningBuffers.reserve(kNumberOfBuffers);
  audioQueue = nullptr;
  audioFileStream = nullptr;
  _volume.store(0.5f);
  FreeAudioQueueBuffers.fill(true);
}

AudioBufPlayer::~AudioBufPlayer() {
  ClientRegistry::instance().remove(clientId_);
  stop();
  // A player that managed the session may still be subscribed when it goes away mid-sentence.
  {
    std::lock_guard lock(objectLock);
    if (isListeningInterruptions) {
      isListeningInterruptions = false;
      unsubscribeFromSessionNotifications();
    }
  }
  if (audioFileStream) AudioFileStreamClose(audioFileStream);
}

std::shared_ptr<AudioBufPlayer> AudioBufPlayer::fromClientData(void* clientData) {
  return ClientRegistry::instance().find(reinterpret_cast<uintptr_t>(clientData));
}

void* AudioBufPlayer::clientData() const { return reinterpret_cast<void*>(uintptr_t(clientId_)); }

// --- Properties ---

std::optional<std::string> AudioBufPlayer::audioCategory() const {
  std::lock_guard lock(propertyMutex);
  return _audioCategory;
}

void AudioBufPlayer::setAudioCategory(std::optional<std::string> category) {
  std::lock_guard lock(propertyMutex);
  _audioCategory = std::move(category);
}

uint64_t AudioBufPlayer::audioCategoryOptions() const { return _audioCategoryOptions.load(); }
void AudioBufPlayer::setAudioCategoryOptions(uint64_t options) { _audioCategoryOptions.store(options); }

bool AudioBufPlayer::AVSessionManagmentEnabled() const { return _AVSessionManagmentEnabled.load(); }
void AudioBufPlayer::setAVSessionManagmentEnabled(bool enabled) { _AVSessionManagmentEnabled.store(enabled); }

std::shared_ptr<AudioBufPlayerDelegate> AudioBufPlayer::delegate() const {
  std::lock_guard lock(propertyMutex);
  return _delegate.lock();
}

void AudioBufPlayer::setDelegate(const std::shared_ptr<AudioBufPlayerDelegate>& delegate) {
  std::lock_guard lock(propertyMutex);
  _delegate = delegate;
}

float AudioBufPlayer::volume() const { return _volume.load(); }

double AudioBufPlayer::reportAudioLenOffset() const { return _reportAudioLenOffset.load(); }
void AudioBufPlayer::setReportAudioLenOffset(double offset) { _reportAudioLenOffset.store(offset); }

int64_t AudioBufPlayer::audioSessionSetCount() const { return _audioSessionSetCount.load(); }
void AudioBufPlayer::setAudioSessionSetCount(int64_t count) { _audioSessionSetCount.store(count); }

// --- Status word ---

bool AudioBufPlayer::hasStatus(uint16_t flags) const { return (playerStatus.load() & flags) != 0; }
void AudioBufPlayer::setStatus(uint16_t flags) { playerStatus.fetch_or(flags); }
void AudioBufPlayer::clearStatus(uint16_t flags) { playerStatus.fetch_and(uint16_t(~flags)); }
// Both under the poll's lock, so that a poll never acts on a request that has ended or on the next one.
void AudioBufPlayer::clearRequestStatus() {
  std::lock_guard lock(progressPollMutex);
  playerStatus.fetch_and(PS_STOPPED);
}

void AudioBufPlayer::beginRequest() {
  std::lock_guard lock(progressPollMutex);
  playerStatus.store(PS_ACTIVE);
  ++requestNumber;
}

bool AudioBufPlayer::isQueueOfRequestUnderWay(AudioQueueRef queue) const {
  return queue && queue == audioQueue && audioQueueRequest == requestNumber && hasStatus(PS_ACTIVE);
}

void AudioBufPlayer::waitForStatusChange() {
  // The caller already holds the mutex: adopt it for the wait and hand it back held.
  std::unique_lock lock(playerStatusMutex, std::adopt_lock);
  playerStatusCondition.wait(lock);
  lock.release();
}

void AudioBufPlayer::broadcastStatusChange() { playerStatusCondition.notify_all(); }

AudioBufPlayer::ProducerTurn::ProducerTurn(AudioBufPlayer& player) : player_(player) {
  while (player_.producerInside) player_.waitForStatusChange();
  player_.producerInside = true;
}

AudioBufPlayer::ProducerTurn::~ProducerTurn() { end(); }

void AudioBufPlayer::ProducerTurn::end() {
  if (!held_) return;
  held_ = false;
  player_.producerInside = false;
  player_.broadcastStatusChange();
}
