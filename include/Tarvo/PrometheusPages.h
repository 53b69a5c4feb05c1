#ifndef TARVO_PROMETHEUSPAGES_H
#define TARVO_PROMETHEUSPAGES_H

/// Joins several pages for Prometheus into one.
///
/// Each root is reported on its own thread, so a process of several threads has several pages. They
/// cannot just be concatenated: a reader wants each metric family once, in one piece. Each thread
/// renders its page with statsRenderPrometheus(), or has a task write it with
/// snapshotRenderPrometheusAsync(). The thread that answers the scrape joins the pages:
///
///     std::vector<Tarvo::String> pages;  // one a thread, under a lock
///     ...
///     respond(Tarvo::joinPrometheusPages(pages));
///
/// The label "root" of each series is the name of the thread that rendered the page. When several
/// pages have the same name, the second becomes "name#2", the third "name#3", in the order of the
/// span. So pass the pages always in the same order, or give the threads distinct names.

#include <span>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// One page with each family once and the series of all pages. Any thread may call it. Throws
/// RuntimeException when one of them is not a complete page of this library. A joined page may be
/// joined again.
TARVO_EXPORT String joinPrometheusPages(std::span<const String> pages);

}  // namespace Tarvo

#endif
