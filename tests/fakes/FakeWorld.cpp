#include "fakes/FakeWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "Diagnostics/qen_log.h"
#include "fakes/FakeParser.h"
#include "fakes/FakeQueue.h"

namespace fake {

namespace {

std::atomic<uintptr_t> nextHandle{0x1000};

// A handle value never given out before in this process; never dereferenced.
uintptr_t newHandle() { return nextHandle.fetch_add(0x10); }

struct CurrentWorld {
  std::mutex mutex;
  std::shared_ptr<World> world = std::make_shared<World>();  // guarded by mutex
};

// Never destroyed: callback threads and work-queue tasks may still ask for it while the process exits.
CurrentWorld& current() {
  static CurrentWorld* const holder = new CurrentWorld;
  return *holder;
}

// " -> !int", or the status as a number when its characters are not printable.
std::string outcomeText(const Outcome& outcome) {
  if (outcome.exception) return " -> raises";
  const std::string text = fourCharacters(uint32_t(outcome.status));
  const bool printable = text.size() == 4 && std::all_of(text.begin(), text.end(), [](char c) {
                           return std::isprint(static_cast<unsigned char>(c)) != 0;
                         });
  return " -> " + (printable ? text : std::to_string(outcome.status));
}

}  // namespace

void CallLog::append(std::string line) {
  std::lock_guard lock(mutex_);
  lines_.push_back(std::move(line));
  appended_.notify_all();
}

std::vector<std::string> CallLog::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

void CallLog::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

bool CallLog::waitUntil(const std::function<bool(const std::vector<std::string>&)>& satisfied,
                        std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return appended_.wait_for(lock, timeout, [&] { return satisfied(lines_); });
}

World::World() : firstHandle_(nextHandle.load()) {}

Outcome World::record(std::string_view function, std::string line, OSStatus refusal,
                      const std::function<std::string()>& onSuccess) {
  std::lock_guard lock(mutex_);
  // Every script of the function counts the call; the first one that is due decides it.
  Outcome outcome;
  bool chosen = false;
  for (auto script = scripts_.begin(); script != scripts_.end();) {
    if (script->function != function || script->callsToSkip-- > 0 || chosen) {
      ++script;
    } else {
      outcome = script->outcome;
      chosen = true;
      script = scripts_.erase(script);
    }
  }
  if (refusal != noErr) outcome = Outcome{refusal, nullptr};
  if (outcome.status != noErr || outcome.exception) {
    line += outcomeText(outcome);
  } else if (onSuccess) {
    line += onSuccess();
  }
  log.append(std::move(line));
  return outcome;
}

void World::choose(std::string_view function, int nth, Outcome outcome) {
  std::lock_guard lock(mutex_);
  scripts_.push_back(Script{std::string(function), std::max(nth, 1) - 1, std::move(outcome)});
}

bool World::isOfPreviousTest(const void* handle) const {
  return handle != nullptr && reinterpret_cast<uintptr_t>(handle) < firstHandle_;
}

std::shared_ptr<FakeQueue> World::addQueueLocked(const AudioStreamBasicDescription& format,
                                                 AudioQueueOutputCallback callback, void* userData) {
  auto handle = reinterpret_cast<AudioQueueRef>(newHandle());
  queues_.push_back(FakeQueue::create(int(queues_.size()) + 1, handle, format, callback, userData));
  return queues_.back();
}

std::shared_ptr<FakeParser> World::addParserLocked(void* clientData, AudioFileStream_PropertyListenerProc listener,
                                                   AudioFileStream_PacketsProc packets) {
  auto handle = reinterpret_cast<AudioFileStreamID>(newHandle());
  parsers_.push_back(std::make_shared<FakeParser>(int(parsers_.size()) + 1, handle, clientData, listener, packets));
  return parsers_.back();
}

std::shared_ptr<FakeQueue> World::findQueue(AudioQueueRef handle) const {
  std::lock_guard lock(mutex_);
  for (const auto& queue : queues_) {
    if (queue->handle == handle) return queue;
  }
  return nullptr;
}

size_t World::queueCount() const {
  std::lock_guard lock(mutex_);
  return queues_.size();
}

std::shared_ptr<FakeQueue> World::queue(int id) const {
  std::lock_guard lock(mutex_);
  if (id == 0 && !queues_.empty()) return queues_.back();
  if (id < 1 || size_t(id) > queues_.size()) return nullptr;
  return queues_[size_t(id) - 1];
}

std::shared_ptr<FakeParser> World::findParser(AudioFileStreamID handle) const {
  std::lock_guard lock(mutex_);
  for (const auto& parser : parsers_) {
    if (parser->handle == handle) return parser;
  }
  return nullptr;
}

ParserSettings World::parserSettings() const {
  std::lock_guard lock(mutex_);
  return parserSettings_;
}

void World::setParserSettings(const std::function<void(ParserSettings&)>& change) {
  std::lock_guard lock(mutex_);
  change(parserSettings_);
}

void World::retire() {
  std::vector<std::shared_ptr<FakeQueue>> queues;
  {
    std::lock_guard lock(mutex_);
    queues = queues_;
  }
  for (const auto& queue : queues) {
    std::lock_guard lock(queue->mutex);
    if (!queue->state.disposed) queue->dispose();
  }
}

std::shared_ptr<World> world() {
  std::lock_guard lock(current().mutex);
  return current().world;
}

std::shared_ptr<World> replaceWorld() {
  auto fresh = std::make_shared<World>();
  std::lock_guard lock(current().mutex);
  std::swap(current().world, fresh);
  return fresh;
}

std::string fourCharacters(uint32_t code) { return FourCCText(int32_t(code)).data(); }

bool await(std::future<bool>& future, std::string_view what) {
  if (future.wait_for(kWaitTimeout) == std::future_status::ready) return true;
  ADD_FAILURE() << "waited " << kWaitTimeout.count() << " s for " << what << " in vain";
  return false;
}

}  // namespace fake
