// Where a table's rows come from, and who hears that an event request on a
// pushed table opened or closed. The agent's data paths make one of each
// and hand them to the table managers when they are made.
#pragma once

#include "framework/tavra.h"
#include "kzq/catalogue.h"

namespace kzq {

// Fills a table object's rows for one sample. Called on whichever thread
// samples (the scheduler, an HTTP request), several at once, so an
// implementation guards what it shares.
class RowSource {
 public:
  virtual ~RowSource() = default;
  // 0, or the error the framework reports for the sample.
  virtual int Sample(framework::tavra& object, const TableSpec& spec) = 0;
};

// Told on the thread that opens or closes an event request, from several
// threads at once, so a producer runs only while someone listens.
class EventRequestListener {
 public:
  virtual ~EventRequestListener() = default;
  virtual void RequestStarted() = 0;
  virtual void RequestEnded() = 0;
};

}  // namespace kzq
