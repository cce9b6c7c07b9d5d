// The page GET / shows: the agent's services, databases, blocking, failed
// jobs and error events, read from the endpoint's own JSON and kept live.
#pragma once

namespace kzq {

const char* StatusPageHtml();

}  // namespace kzq
