// The test's side of the fake: the functions of FakePlatform.h that are not platform calls.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <tuple>

#include "Audio/Platform/Dispatch.h"
#include "fakes/FakePlatform.h"
#include "fakes/FakeQueue.h"
#include "fakes/FakeWorld.h"

namespace fake {

namespace {

bool contains(const std::string& line, std::string_view text) { return line.find(text) != std::string::npos; }

std::string dump(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += "\n  " + line;
  return text.empty() ? " (none)" : text;
}

bool waitForLines(const std::function<bool(const std::vector<std::string>&)>& satisfied, const std::string& what) {
  const auto world = fake::world();
  if (world->log.waitUntil(satisfied, kWaitTimeout)) return true;
  ADD_FAILURE() << "waited " << kWaitTimeout.count() << " s for " << what
                << " in vain; calls:" << dump(world->log.lines());
  return false;
}

// Runs post with a task that resolves the returned future.
bool awaitTask(const std::function<void(std::function<void()>)>& post, std::string_view what) {
  auto ran = std::make_shared<std::promise<bool>>();
  std::future<bool> done = ran->get_future();
  post([ran] { ran->set_value(true); });
  return await(done, what);
}

}  // namespace

void reset() {
  std::ignore = waitForSessionNotifications();
  replaceWorld()->retire();
}

std::vector<std::string> calls() { return world()->log.lines(); }

std::vector<std::string> calls(std::string_view text) {
  std::vector<std::string> lines = calls();
  std::erase_if(lines, [&](const std::string& line) { return !contains(line, text); });
  return lines;
}

size_t countCalls(std::string_view text) { return calls(text).size(); }

void clearCalls() { world()->log.clear(); }

bool waitForCall(std::string_view text) { return waitForCalls(text, 1); }

bool waitForCalls(std::string_view text, size_t count) {
  return waitForLines(
      [&](const std::vector<std::string>& lines) {
        return size_t(std::count_if(lines.begin(), lines.end(),
                                    [&](const std::string& line) { return contains(line, text); })) >= count;
      },
      std::to_string(count) + " call(s) with '" + std::string(text) + "'");
}

bool waitForMainQueue() {
  return awaitTask([](std::function<void()> task) { dispatch_async(dispatch_get_main_queue(), std::move(task)); },
                   "the main queue");
}

void failCall(std::string_view function, OSStatus status, int nth) {
  world()->choose(function, nth, Outcome{status, nullptr});
}

void raiseOnCall(std::string_view function, std::exception_ptr exception) {
  world()->choose(function, 1, Outcome{noErr, std::move(exception)});
}

Queue::Queue(std::shared_ptr<FakeQueue> queue) : queue_(std::move(queue)) {}

QueueState Queue::state() const {
  if (!queue_) return {};
  std::lock_guard lock(queue_->mutex);
  return queue_->state;
}

bool Queue::playBack() { return queue_ && queue_->playBack(); }
bool Queue::playBackAll() { return queue_ && queue_->playBackAll(); }
bool Queue::playBackFromManyThreads() { return queue_ && queue_->playBackFromManyThreads(); }
bool Queue::reportRunning(bool running) { return queue_ && queue_->reportRunning(running); }

void Queue::setSampleTime(double sampleTime) {
  if (!queue_) return;
  std::lock_guard lock(queue_->mutex);
  queue_->state.sampleTime = sampleTime;
}

Queue queue(int id) {
  std::shared_ptr<FakeQueue> found = world()->queue(id);
  if (!found) ADD_FAILURE() << "there is no queue q=" << (id ? std::to_string(id) : "(last)") << " in this test";
  return Queue(std::move(found));
}

Queue lastQueue() { return queue(0); }

size_t queueCount() { return world()->queueCount(); }

void setParserDataFormat(const AudioStreamBasicDescription& format) {
  world()->setParserSettings([&](ParserSettings& settings) { settings.dataFormat = format; });
}

void setParserBehaviour(ParserBehaviour behaviour) {
  world()->setParserSettings([&](ParserSettings& settings) { settings.behaviour = std::move(behaviour); });
}

bool beginInterruption() {
  world()->session.beginInterruption();
  return waitForSessionNotifications();
}

bool endInterruption() {
  world()->session.endInterruption();
  return waitForSessionNotifications();
}

bool postInterruption(std::optional<int64_t> type) {
  world()->session.postInterruption(type);
  return waitForSessionNotifications();
}

bool waitForSessionNotifications() {
  const auto world = fake::world();
  return awaitTask([&](std::function<void()> task) { world->session.afterPostedNotifications(std::move(task)); },
                   "the session notifications to be handled");
}

}  // namespace fake
