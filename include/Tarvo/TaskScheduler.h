#ifndef TARVO_TASKSCHEDULER_H
#define TARVO_TASKSCHEDULER_H

/// The task runtime: one header for all of it, except the events of the history, which are in
/// Tarvo/TaskSchedulerHistory.h.
///
/// A thread that does many kinds of work makes a task with a priority for each. Its root scheduler
/// runs on the thread's event loop, one task at a time, so that timers, descriptors and other
/// callbacks are served in between. No kind of work can delay the others for longer than 20 us and
/// one run.
///
///     #include <Tarvo/TaskScheduler.h>
///     #include <cstdio>
///
///     struct Count : Tarvo::Task {
///       using Task::Task;
///       void taskExecute() override {
///         while (next <= last) {
///           sum += next++;
///           if (taskShouldYield()) return scheduleTask();  // go on at the next turn
///         }
///         std::printf("%llu\n", sum);
///       }
///       unsigned long long next = 1, last = 100'000'000, sum = 0;
///     };
///
///     int main() {
///       auto count = std::make_shared<Count>(Tarvo::schedulerRootTarvo(),
///                                            Tarvo::TaskPriority::low, "count");
///       count->scheduleTask();
///       Tarvo::Platform::doEventLoop();  // returns when nothing is left to do
///     }
///
/// What runs when:
/// 1. scheduleTask() appends the task to its scheduler's run queue for its priority. The first one
///    in an idle scheduler asks the event loop for a callback.
/// 2. In that callback the root picks one task: the first of the most urgent queue, unless the
///    starvation guard lets a less urgent one go first (detail/TaskRunQueues.h).
/// 3. It runs the task's body and measures: the wait, the run, whether it took twice or five times
///    the task's quantum.
/// 4. It continues with the next task within the same callback, until its slice ends, as described
///    below. Then it requests another callback; before that, the event loop polls the kernel.
/// 5. When a step finds no task, the scheduler is idle until the next scheduleTask(). If a timer or
///    a ready descriptor wakes it, its callback runs in the same turn of the loop, after the events
///    that are active already.
///
/// Who may have to wait for whom:
/// - The event loop, for tasks. Events that it knows of without a system call wait for the present
///   run only: an active event, a requested callback, a timer without delay, another root, the end
///   of a loop that was broken or is over. Events that only the kernel or the clock knows of (a
///   descriptor that becomes readable, a timer that comes due) wait until runSlice(), 20 us, has
///   passed since the callback began, and for the run then in progress. With runSliceIs(0) the loop
///   polls the kernel before every run. A timer that the program itself adds to the thread's base
///   belongs to the second kind.
/// - A more urgent task, for a less urgent one: the present run, and the runs that the starvation
///   guard lets through (detail/TaskRunQueues.h says how many).
/// - Tasks of one priority run in the order in which they were scheduled.
/// - All others, for a task group: its quantum and one member's run.
/// With fast forward or virtual time on there are no slices: one task runs per callback.
///
/// The thread rule: a root, and everything registered with it, is used on the thread that made it.
/// Every operation compares std::this_thread::get_id() with the root's thread, and ends the process
/// when they differ. Other threads reach its tasks through wakers (Tarvo/TaskWaker.h) and inboxes
/// (Tarvo/Inbox.h).
///
/// In a child made by fork(), the thread that forked may continue with its root, once
/// leForkReinit() has given it an event base of its own. (Its std::thread::id is unchanged;
/// messages name the parent's process as the owner.) The roots of other threads must not be used
/// there.
///
/// Who owns what: the program owns its tasks through shared pointers, and each task holds its
/// scheduler. A scheduler never owns its tasks. A thread's shared root lives until the thread ends
/// or calls leFree(), or until its last task is destroyed, whichever is later. So destroy tasks,
/// and roots of your own, before leFree().

#include "Tarvo/FileDescriptorTask.h"  // IWYU pragma: export
#include "Tarvo/Platform.h"            // IWYU pragma: export
#include "Tarvo/Task.h"                // IWYU pragma: export
#include "Tarvo/TaskGroup.h"           // IWYU pragma: export
#include "Tarvo/TaskSchedulerCore.h"   // IWYU pragma: export
#include "Tarvo/TaskSchedulerRoot.h"   // IWYU pragma: export
#include "Tarvo/TimerTask.h"           // IWYU pragma: export

#endif
