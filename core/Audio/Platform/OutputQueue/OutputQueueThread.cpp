// The callback thread of an OutputQueue. Each round of its loop, under mutex_, carries out an
// immediate stop, collects the entries the sound output has played, takes one callback to deliver
// and sees what to render next; then, without mutex_, it delivers the callback and renders one
// piece. With nothing to do it records that it has settled, tells the Playout at which read
// position to wake it, and waits on the Wakeup, which the API calls and the sound output move.
#include <pthread.h>

#include <algorithm>

#include "Audio/Platform/OutputQueue/OutputQueue.h"
#include "Diagnostics/qen_log.h"

void OutputQueue::runCallbackThread() {
  pthread_setname_np(pthread_self(), "audio-queue");
  {
    std::lock_guard<std::mutex> lock(mutex_);
    callbackThread_ = std::this_thread::get_id();
  }
  for (;;) {
    const uint32_t seen = wakeup_.sequence();
    bool haveEvent = false;
    Event event{nullptr};
    uint64_t ticket = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (disposed_) {
        return;
      }
      ticket = settleTicket_;
      if (!deviceLost_ && playout_.isLost()) {
        deviceLost_ = true;
        LOG_ERROR("the sound output was lost: the queue stops");
        stopNow();
      }
      applyImmediateStop();
      collectPlayedEntries(playout_.heardReadPosition());
      if (!events_.empty()) {
        event = events_.front();
        events_.pop_front();
        haveEvent = true;
        if (event.record != nullptr) {
          event.record->enqueued = false;  // from here on the client owns the buffer again
        }
      }
      advanceRenderCursor();
    }
    if (haveEvent) {
      deliver(event);
    }
    // Rendering goes on between callbacks, so that a burst of them does not starve the ring.
    if (renderStep() || haveEvent) {
      continue;
    }
    WakeThresholds threshold;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (disposed_) {
        return;
      }
      if (rendering_ == Rendering::Nothing && rendered_ < entries_.size()) {
        continue;  // enqueued since this round looked
      }
      threadWantsEntries_ = rendering_ == Rendering::Nothing;
      settledTicket_ = ticket;
      settled_.notify_all();
      threshold = wakeThresholds();
      playout_.wakeWhenReached(threshold.read, threshold.heard);
    }
    // The sound output may have passed a threshold before it was set; then it will not wake us.
    if (ring_.readPosition() < threshold.read && playout_.heardReadPosition() < threshold.heard) {
      wakeup_.waitPast(seen);
    }
  }
}

void OutputQueue::applyImmediateStop() {
  if (stopsApplied_ == stopsRequested_) {
    return;
  }
  renderer_.reset();
  rendering_ = Rendering::Nothing;
  playout_.endAt(Playout::kNoEnd);
  playout_.discardBefore(ring_.writePosition());
  stopsApplied_ = stopsRequested_;
  publishControl();
}

void OutputQueue::collectPlayedEntries(uint64_t readPosition) {
  while (rendered_ > 0 && entries_.front().end <= readPosition) {
    const Entry entry = entries_.front();
    entries_.pop_front();
    --rendered_;
    if (entry.record != nullptr) {
      events_.push_back(Event{entry.record});
    } else if (!entry.cancelled) {
      finishDrain();
    }
  }
}

void OutputQueue::finishDrain() {
  draining_ = false;
  running_ = false;
  paused_ = false;
  events_.push_back(Event{nullptr});
  // A run of its own for the stopped queue: the Playout then never takes the frames after the end
  // for its run, even if it did not see the end itself. The end stays until the next start.
  ++run_;
  publishControl();
}

void OutputQueue::advanceRenderCursor() {
  const bool entryDone = (rendering_ == Rendering::Buffer && cursor_.finished()) ||
                         rendering_ == Rendering::StreamFinished;
  if (entryDone && renderer_.stagedFrames() == 0) {
    Entry& entry = entries_[rendered_];
    entry.end = ring_.writePosition();
    if (entry.record == nullptr && !entry.cancelled) {
      playout_.endAt(entry.end);
    }
    ++rendered_;
    rendering_ = Rendering::Nothing;
  }
  if (rendering_ == Rendering::Nothing && rendered_ < entries_.size()) {
    entries_[rendered_].begun = true;
    const BufferRecord* record = entries_[rendered_].record;
    if (record == nullptr) {
      rendering_ = Rendering::StreamToFinish;
    } else {
      rendering_ = Rendering::Buffer;
      cursor_ = RenderCursor{record->bytes.get(), record->byteSize, packetized_ ? &record->packets : nullptr};
    }
  }
}

OutputQueue::WakeThresholds OutputQueue::wakeThresholds() const {
  WakeThresholds threshold;
  if (rendered_ > 0) {
    threshold.heard = entries_.front().end;  // the next entry to be heard in full
  }
  const size_t staged = renderer_.stagedFrames();
  if (staged > 0) {  // waiting for room in the ring; wait for a good part of it
    const size_t wanted = std::min(staged, ring_.capacity() / 4);
    threshold.read = ring_.writePosition() + wanted - ring_.capacity();
  }
  return threshold;
}

bool OutputQueue::renderStep() {
  if (renderer_.stagedFrames() > 0) {
    const size_t written = ring_.write(renderer_.staged(), renderer_.stagedFrames());
    renderer_.take(written);
    return written > 0;
  }
  switch (rendering_) {
    case Rendering::Buffer:
      if (cursor_.finished()) {
        return false;
      }
      renderer_.renderNext(cursor_);
      return true;
    case Rendering::StreamToFinish:
      renderer_.finishStream();
      rendering_ = Rendering::StreamFinished;
      return true;
    case Rendering::Nothing:
    case Rendering::StreamFinished:
      return false;
  }
  return false;
}

void OutputQueue::deliver(const Event& event) {
  if (event.record != nullptr) {
    callback_(userData_, handle_, event.record->header);
    return;
  }
  for (size_t i = 0;; ++i) {
    Listener listener{};
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (disposed_ || i >= listeners_.size()) {
        return;
      }
      listener = listeners_[i];
    }
    listener.proc(listener.userData, handle_, kAudioQueueProperty_IsRunning);
  }
}
