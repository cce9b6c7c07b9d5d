// KVCCOMM: the one entry through which agent and collector use the
// channel. A function code word (any case) and its arguments:
//   "init"          -> IpcAnchor* of kind 'P' (agent)
//   "initc"         -> IpcAnchor* of kind 'C' (collector)
//   "get", anchor, request text -> PipeList* (null on failure; the
//                      anchor holds the error code and text)
//   "put", anchor   -> PipeList*
//   "term", anchor  -> null; frees the anchor
//   "shut", anchor  -> null; closes the shared endpoints
//   "initsm"        -> null; opens them, or ends the process with code 8
// Callers are serialised by a busy word with a bounded 30-second wait.
#pragma once

void* KVCCOMM(const char* code, ...);

namespace kvc {

// While one exists, KVCCOMM calls of its thread wait at most `millis` for a
// running call instead of 30 seconds: a consumer waiting for a fresh sample
// is told at once that the channel is busy (during an outage every exchange
// runs out its time-out) rather than queued behind the scheduler.
class ChannelPatience {
 public:
  explicit ChannelPatience(int millis);
  ~ChannelPatience();
  ChannelPatience(const ChannelPatience&) = delete;
  ChannelPatience& operator=(const ChannelPatience&) = delete;

 private:
  int previous_;
};

// Whether the last KVCCOMM call of this thread was not made because
// another call held the channel for longer than the thread would wait.
bool LastCallFoundChannelBusy();

}  // namespace kvc
