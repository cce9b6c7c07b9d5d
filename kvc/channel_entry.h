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
// Callers are serialised by a busy lock with a bounded 30-second wait
// (ChannelPatience shortens it for the calling thread).
#pragma once

#include "kvc/collector_channel.h"

void* KVCCOMM(const char* code, ...);
