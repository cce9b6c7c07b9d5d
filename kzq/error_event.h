// An error event: what the errorlog monitor keeps of one error until the
// kzqerror table reports it. The event is the tail of a kzqerror row, from
// MSGTIME to the end, in the row's own layout; the report puts the agent's
// leading attributes in front of it.
#pragma once

#include <cstdint>
#include <string>

#include "kzq/errorlog_line.h"

namespace kzq {

struct EventInputs {
  LogTime time;  // of the line that named the error
  long error = 0;
  int severity = 0;
  int state = 0;
  std::u16string text;         // the message
  std::u16string source_word;  // the line's source, "spid52"
  int64_t now = 0;             // seconds since 1970
};

// The length of every event.
int ErrorEventLength();

// The event's fields, blank-padded: MSGTIME the line's time as a time
// stamp, MSGAGE whole minutes from it to `now` (0 when the line's time does
// not exist here), ERRORID, SEVERITY, SQLSTATE, MSGISSUER the first 7 bytes
// of the source, SAMPTIME `now` as a time stamp, UMSGTEXT the message in
// UTF-8 (only its first half when it does not fit) and ERRSPID the source.
// Texts are cut only between characters.
std::string BuildErrorEvent(const EventInputs& in);

// The whole kzqerror row: blanks, ORIGINNODE, SAMPLENO 1, ROWNO 1,
// TIMESTAMP, SERVERID and HOSTNAME unless null, then the event (an event
// of the wrong length is cut, or leaves the rest blank).
std::string BuildErrorRow(const std::string& event, const std::string& origin_node, const char* server_id,
                          const char* host_name, const std::string& time_stamp);

}  // namespace kzq
