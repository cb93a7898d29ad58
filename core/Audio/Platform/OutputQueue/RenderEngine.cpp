#include "Audio/Platform/OutputQueue/RenderEngine.h"

#include <pthread.h>

#include <thread>

void RenderJob::wantRender() noexcept {
  uint8_t state = state_.load(std::memory_order_acquire);
  for (;;) {
    if (state == Idle) {
      if (state_.compare_exchange_weak(state, Scheduled, std::memory_order_acq_rel)) {
        RenderEngine::instance().schedule(*this);
        return;
      }
    } else if (state == Running) {
      if (state_.compare_exchange_weak(state, Rescheduled, std::memory_order_acq_rel)) {
        return;
      }
    } else {
      return;  // a pass is coming anyway, or never again
    }
  }
}

RenderEngine& RenderEngine::instance() {
  static RenderEngine* const engine = new RenderEngine;
  return *engine;
}

RenderEngine::RenderEngine() {
  for (size_t i = 0; i < kThreads; ++i) {
    std::thread([this] { work(); }).detach();
  }
}

void RenderEngine::schedule(RenderJob& job) noexcept {
  RenderJob* head = arrived_.load(std::memory_order_relaxed);
  do {
    job.next_ = head;
  } while (!arrived_.compare_exchange_weak(head, &job, std::memory_order_release, std::memory_order_relaxed));
  wakeup_.notifyOne();
}

void RenderEngine::work() {
  pthread_setname_np(pthread_self(), "audio-render");
  for (;;) {
    const uint32_t seen = wakeup_.sequence();
    if (RenderJob* job = take()) {
      run(*job);
    } else {
      wakeup_.waitPast(seen);
    }
  }
}

RenderJob* RenderEngine::take() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (ready_.empty()) {
    // The list comes newest first; the jobs are taken in the order they were asked for.
    for (RenderJob* job = arrived_.exchange(nullptr, std::memory_order_acquire); job != nullptr; job = job->next_) {
      ready_.push_front(job);
    }
  }
  if (ready_.empty()) {
    return nullptr;
  }
  RenderJob* job = ready_.front();
  ready_.pop_front();
  return job;
}

void RenderEngine::run(RenderJob& job) {
  job.state_.store(RenderJob::Running, std::memory_order_release);
  if (!job.renderPass()) {
    job.state_.store(RenderJob::Retired, std::memory_order_release);
    job.retire();
    return;
  }
  uint8_t state = RenderJob::Running;
  if (job.state_.compare_exchange_strong(state, RenderJob::Idle, std::memory_order_acq_rel)) {
    return;
  }
  // Asked for again while it ran: behind the jobs already waiting, so that one busy queue does not
  // keep the others from their passes.
  job.state_.store(RenderJob::Scheduled, std::memory_order_release);
  std::lock_guard<std::mutex> lock(mutex_);
  ready_.push_back(&job);
}
