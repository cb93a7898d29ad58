// Work queues: a global concurrent queue and a serial main queue.
//
// The global queue runs tasks on an elastic pool of threads: when every thread is busy and a task
// waits, a thread is added (up to a high cap), and threads idle for a while retire. Tasks that block
// (sleep, wait on a condition) therefore never starve the others.
// The main queue runs its tasks one at a time, in posting order, on one thread.
// Both live for the whole process; tasks still pending at exit are dropped, never run half-way.
#pragma once

#include <functional>

typedef struct DispatchQueue* dispatch_queue_t;

// The global concurrent queue; priority and flags are accepted for the API's shape and ignored.
dispatch_queue_t dispatch_get_global_queue(long priority, unsigned long flags);
dispatch_queue_t dispatch_get_main_queue();
// Posts a task and returns at once. Callable from any thread, a task of either queue included.
void dispatch_async(dispatch_queue_t queue, std::function<void()> task);

// Waits until neither queue has a task queued or running, or until the timeout passes; returns
// whether they became idle. For hosts and tests that must see every posted task done; never call it
// from a task.
bool dispatch_wait_until_idle(double timeoutSeconds);

// Blocks the calling thread for the given number of seconds.
void sleepForTimeInterval(double seconds);
