#ifndef TARVO_TASKSCHEDULER_H
#define TARVO_TASKSCHEDULER_H

/// The task runtime: one header for all of it.
///
/// A thread that must do many kinds of work gives each kind a task with a priority. Its root
/// scheduler sits on the thread's event loop and runs one task at a time, so that timers,
/// descriptors and other callbacks come in between, and no kind of work can hold up the others for
/// longer than 20 us and one run.
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
///    starvation guard lets a less urgent one go first (TaskRunQueues.h).
/// 3. It runs the task's body and measures: the wait, the run, whether it took twice or five times
///    the task's quantum.
/// 4. It goes on with the next task, within the same callback, until its slice ends as said below;
///    then it asks for another callback, before which the event loop asks the kernel.
/// 5. When a step finds no task, the scheduler is idle until the next scheduleTask(). If a
///    descriptor's report or a timer wakes it, its callback comes in the same turn of the loop,
///    after what is active already.
///
/// Who may have to wait for whom:
/// - The event loop, for tasks: what it can serve without asking the kernel or the clock (an active
///   event, a requested callback, a timer without delay, another root, the end of a loop that was
///   broken or is over) comes after the present run. What only the kernel or the clock knows (a
///   descriptor that becomes readable, a timer that comes due) comes when runSlice() is over, 20 us
///   after the callback began, and the run that is then in progress has ended. With runSliceIs(0)
///   the kernel is asked before every run. A timer that the program adds to the thread's base by
///   itself counts as one that only the clock knows.
/// - A more urgent task, for a less urgent one: the present run, and the runs that the starvation
///   guard lets through (TaskRunQueues.h says how many).
/// - Tasks of one priority run in the order in which they were scheduled.
/// - Everybody, for a task group: its quantum and one member's run.
/// With fast forward or virtual time on there are no slices: one task runs per callback.
///
/// The thread rule: a root, and everything registered with it, is used on the thread that made it.
/// Every operation checks std::this_thread::get_id() against the root's and ends the process when
/// they differ. Other threads reach a root through a descriptor that a task of it watches.
///
/// In a child that fork() made, the thread that forked goes on with its root (it is the same
/// std::thread::id there; messages name the parent's process as the owner), once leForkReinit() has
/// given it an event base of its own. The roots of other threads must be left alone.
///
/// Who owns what: tasks belong to whoever made them, by shared reference, and hold their scheduler;
/// a scheduler never owns its tasks. A thread's shared root lives until the thread ends or frees
/// its event base with leFree(), or until the last task is gone, whichever is later; so tasks, and
/// roots of one's own, are destroyed before leFree().

#include "Tarvo/FileDescriptorTask.h"    // IWYU pragma: export
#include "Tarvo/Platform.h"              // IWYU pragma: export
#include "Tarvo/Task.h"                  // IWYU pragma: export
#include "Tarvo/TaskGroup.h"             // IWYU pragma: export
#include "Tarvo/TaskSchedulerCore.h"     // IWYU pragma: export
#include "Tarvo/TaskSchedulerHistory.h"  // IWYU pragma: export
#include "Tarvo/TaskSchedulerRoot.h"     // IWYU pragma: export
#include "Tarvo/TimerTask.h"             // IWYU pragma: export

#endif
