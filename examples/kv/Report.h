#ifndef TARVO_EXAMPLES_KV_REPORT_H
#define TARVO_EXAMPLES_KV_REPORT_H

#include <cstddef>
#include <string>

#include "Background.h"
#include "Store.h"
#include "Tarvo/TaskScheduler.h"

namespace kv {

/// Prints what became of the data.
void printStore(const Store& store, const Background& background);

/// Writes the figures to stats.json, and what happened last to timeline.json, in a directory.
void leaveFiles(const Tarvo::TaskSchedulerRoot& root, const std::string& directory);

/// The last events of the scheduler, `count` of them, the newest first.
std::string lastEvents(const Tarvo::TaskSchedulerRoot& root, std::size_t count);

}  // namespace kv

#endif
