// The fake's world and the test's side of it: the log, the chosen results, the session helpers.
#include "fakes/FakeWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <tuple>

#include "Audio/Platform/Dispatch.h"
#include "Diagnostics/qen_log.h"

namespace fake {

namespace {

struct CurrentWorld {
  std::mutex mutex;
  std::shared_ptr<World> world = std::make_shared<World>();  // guarded by mutex
};

// Never destroyed: work-queue tasks may still ask for it while the process exits.
CurrentWorld& current() {
  static CurrentWorld* const holder = new CurrentWorld;
  return *holder;
}

bool contains(const std::string& line, std::string_view text) { return line.find(text) != std::string::npos; }

// Runs post with a task, then waits until the task has run.
bool awaitTask(const std::function<void(std::function<void()>)>& post, std::string_view what) {
  auto ran = std::make_shared<std::promise<void>>();
  std::future<void> done = ran->get_future();
  post([ran] { ran->set_value(); });
  if (done.wait_for(kWaitTimeout) == std::future_status::ready) return true;
  ADD_FAILURE() << "waited " << kWaitTimeout.count() << " s for " << what << " in vain";
  return false;
}

bool waitForSessionNotifications() {
  const auto world = fake::world();
  return awaitTask([&](std::function<void()> task) { world->session.afterPostedNotifications(std::move(task)); },
                   "the session notifications to be handled");
}

}  // namespace

std::shared_ptr<World> world() {
  std::lock_guard lock(current().mutex);
  return current().world;
}

uintptr_t newHandle() {
  static std::atomic<uintptr_t> next{0x1000};
  return next.fetch_add(0x10);
}

OSStatus World::record(std::string_view function, std::string line, OSStatus refusal) {
  // Every script of the function counts the call; the first one that is due decides it.
  OSStatus status = noErr;
  std::exception_ptr exception;
  bool chosen = false;
  for (auto script = scripts_.begin(); script != scripts_.end();) {
    if (script->function != function || script->callsToSkip-- > 0 || chosen) {
      ++script;
    } else {
      std::tie(status, exception, chosen) = std::tuple(script->status, script->exception, true);
      script = scripts_.erase(script);
    }
  }
  if (refusal != noErr) std::tie(status, exception) = std::tuple(refusal, nullptr);
  if (exception) line += " -> raises";
  if (status != noErr) line += " -> " + std::string(FourCCText(status).data());
  append(std::move(line));
  if (exception) std::rethrow_exception(exception);
  return status;
}

void World::append(std::string line) {
  log.push_back(std::move(line));
  appended_.notify_all();
}

void World::choose(std::string_view function, int nth, OSStatus status, std::exception_ptr exception) {
  std::lock_guard lock(mutex);
  scripts_.push_back(Script{std::string(function), std::max(nth, 1) - 1, status, std::move(exception)});
}

bool World::waitForLog(const std::function<bool(const std::vector<std::string>&)>& satisfied) {
  std::unique_lock lock(mutex);
  if (appended_.wait_for(lock, kWaitTimeout, [&] { return satisfied(log); })) return true;
  std::string lines;
  for (const std::string& line : log) lines += "\n  " + line;
  ADD_FAILURE() << "waited " << kWaitTimeout.count() << " s in vain; calls:" << lines;
  return false;
}

void reset() {
  std::ignore = waitForSessionNotifications();
  auto fresh = std::make_shared<World>();
  {
    std::lock_guard lock(current().mutex);
    std::swap(current().world, fresh);
  }
  std::lock_guard lock(fresh->mutex);
  for (const auto& queue : fresh->queues) queue->state.disposed = true;
}

std::vector<std::string> calls() {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  return world->log;
}

std::vector<std::string> calls(std::string_view text) {
  std::vector<std::string> lines = calls();
  std::erase_if(lines, [&](const std::string& line) { return !contains(line, text); });
  return lines;
}

size_t countCalls(std::string_view text) { return calls(text).size(); }

void clearCalls() {
  const auto world = fake::world();
  std::lock_guard lock(world->mutex);
  world->log.clear();
}

bool waitForCall(std::string_view text) {
  return world()->waitForLog([&](const std::vector<std::string>& lines) {
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return contains(line, text); });
  });
}

bool waitForMainQueue() {
  return awaitTask([](std::function<void()> task) { dispatch_async(dispatch_get_main_queue(), std::move(task)); },
                   "the main queue");
}

void failCall(std::string_view function, OSStatus status, int nth) { world()->choose(function, nth, status, nullptr); }

void raiseOnCall(std::string_view function, std::exception_ptr exception) {
  world()->choose(function, 1, noErr, std::move(exception));
}

bool beginInterruption() {
  world()->session.beginInterruption();
  return waitForSessionNotifications();
}

bool endInterruption() {
  world()->session.endInterruption();
  return waitForSessionNotifications();
}

}  // namespace fake
