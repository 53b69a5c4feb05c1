#ifndef TARVO_PROMETHEUSPAGES_H
#define TARVO_PROMETHEUSPAGES_H

/// One page for Prometheus out of several.
///
/// A root is reported on its own thread, so a process of several threads has several pages, and
/// these cannot simply stand behind each other: a reader wants each family once, in one piece.
/// Each thread renders its page with statsRenderPrometheus(), or lets a task write it with
/// snapshotRenderPrometheusAsync(); whoever answers the scrape joins them:
///
///     std::vector<Tarvo::String> pages;  // one a thread, under a lock
///     ...
///     respond(Tarvo::joinPrometheusPages(pages));
///
/// Pages are told apart by their label "root", the name of the thread that rendered them. Where
/// several have one name, the second becomes "name#2", the third "name#3": in the order in which
/// they are given, so give them in one order always, or names to the threads.

#include <span>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// The pages as one: each family once, with the series of all pages. For any thread. Throws
/// RuntimeException when one of them is no whole page of this library, joined or not.
TARVO_EXPORT String joinPrometheusPages(std::span<const String> pages);

}  // namespace Tarvo

#endif
