#ifndef TARVO_EXAMPLES_COUNTERSPAGE_H
#define TARVO_EXAMPLES_COUNTERSPAGE_H

#include "Tarvo/Counters.h"

/// A plug-in for counters that has a page for Prometheus.
class CountersPage : public Tarvo::CountersPlugin {
 public:
  /// Can be joined with the pages of roots by joinPrometheusPages().
  virtual Tarvo::String page() = 0;

 protected:
  ~CountersPage() = default;
};

#endif
