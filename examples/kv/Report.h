#ifndef TARVO_EXAMPLES_KV_REPORT_H
#define TARVO_EXAMPLES_KV_REPORT_H

#include <cstddef>
#include <string>

#include "Background.h"
#include "Store.h"
#include "Tarvo/TaskScheduler.h"

namespace kv {

/// Prints what the tasks did, those that are gone included: a line for each name.
void printTasks(const Tarvo::TaskSchedulerRoot& root, const Tarvo::TaskGroup& background);

/// Prints what became of the data.
void printStore(const Store& store, const Background& background);

/// The last events of the scheduler, `count` of them, the newest first.
std::string lastEvents(const Tarvo::TaskSchedulerRoot& root, std::size_t count);

}  // namespace kv

#endif
