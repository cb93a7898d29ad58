// The render pass of an OutputQueue, on a thread of the RenderEngine. Each round, under mutex_, it
// carries out an immediate stop, collects the entries the sound output has played into callbacks
// for the delivery, and sees what to render next; then, without mutex_, it renders the entry until
// it is done or the ring is full. With nothing left it records that it has settled, tells the
// Playout at which read or heard position to ask for the next pass, and ends.
#include <algorithm>

#include "Audio/Platform/OutputQueue/OutputQueue.h"
#include "Diagnostics/qen_log.h"

bool OutputQueue::renderPass() {
  for (;;) {
    uint64_t requests = 0;
    bool post = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (disposed_) {
        return false;
      }
      requests = renderRequests_;
      if (!deviceLost_ && playout_.isLost()) {
        deviceLost_ = true;
        LOG_ERROR("the sound output was lost: the queue stops");
        stopNow();
      }
      applyImmediateStop();
      collectPlayedEntries(playout_.heardReadPosition());
      advanceRenderCursor();
      post = claimDelivery();
    }
    if (post) {
      postDelivery();
    }
    bool rendered = false;
    while (renderStep()) {
      rendered = true;
    }
    if (rendered) {
      continue;  // the entry may be done: the next round moves on
    }
    WakeThresholds threshold;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (disposed_) {
        return false;
      }
      if ((rendering_ == Rendering::Nothing && rendered_ < entries_.size()) || stopsApplied_ != stopsRequested_) {
        continue;  // changed since this round looked
      }
      renderWantsEntries_ = rendering_ == Rendering::Nothing;
      renderRequestsDone_ = requests;
      settled_.notify_all();
      threshold = wakeThresholds();
      playout_.wakeWhenReached(threshold.read, threshold.heard);
    }
    // The sound output may have passed a threshold before it was set; then it will not ask.
    if (ring_.readPosition() < threshold.read && playout_.heardReadPosition() < threshold.heard) {
      return true;
    }
  }
}

void OutputQueue::retire() {
  // The engine's last touch: the queue may be destroyed as this returns.
  std::shared_ptr<OutputQueue> self = std::move(keepAlive_);
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
  events_.insert(events_.end(), heldEvents_.begin(), heldEvents_.end());
  heldEvents_.clear();
  publishControl();
}

void OutputQueue::collectPlayedEntries(uint64_t readPosition) {
  while (rendered_ > 0 && entries_.front().end <= readPosition) {
    const Entry entry = entries_.front();
    entries_.pop_front();
    --rendered_;
    if (entry.record != nullptr) {
      pushEvent(Event{entry.record});
    } else if (!entry.cancelled) {
      finishDrain();
    }
  }
}

void OutputQueue::finishDrain() {
  draining_ = false;
  running_ = false;
  paused_ = false;
  pushEvent(Event{nullptr});
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
  // Above the low-water mark the next pass comes when the ring has fallen to it; below, an enqueue
  // asks for it.
  const uint64_t write = ring_.writePosition();
  const uint64_t lowWater = lowWaterFrames();
  if (write - ring_.readPosition() > lowWater) {
    threshold.read = write - lowWater;
  }
  // Every pass collects what has been heard by then. Besides, buffers come back in batches: a pass
  // comes once a quarter of the buffers enqueued have been heard, so that a client waiting for them
  // wakes once a batch, not once a buffer, and still gets them back while three quarters play. A
  // drain's end stops the read position short of any later threshold, so it always asks.
  const size_t buffers = size_t(std::count_if(entries_.begin(), entries_.end(), [](const Entry& entry) {
    return entry.record != nullptr;
  }));
  const size_t batch = (buffers + 3) / 4;
  size_t seen = 0;
  for (size_t i = 0; i < rendered_; ++i) {
    const Entry& entry = entries_[i];
    const bool drainEnd = entry.record == nullptr && !entry.cancelled;
    seen += entry.record != nullptr;
    if (drainEnd || seen == batch || i + 1 == rendered_) {
      threshold.heard = entry.end;
      break;
    }
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
