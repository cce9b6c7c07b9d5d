// The collector channel's counts as /metrics families: what a person needs
// to tell a slow collector from a stalled channel.
#pragma once

#include <vector>

#include "framework/serve/agent_description.h"
#include "kvc/collector_channel.h"

namespace kzq {

std::vector<framework::CounterFamily> ChannelCounters(const kvc::ChannelCounts& counts);

}  // namespace kzq
