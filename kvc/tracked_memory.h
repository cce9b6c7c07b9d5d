// Tracked memory: heap blocks with guard bytes behind the data and, unless
// the caller opts out, an entry in a chain of live allocations, so that
// overruns and frees of unknown blocks are reported with the call site.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kvc/generic_chain.h"

namespace kvc {

inline constexpr unsigned char kGuardByte = 0xEF;

enum TrackFlags : uint16_t {
  kTrackUntracked = 1,     // no chain entry
  kTrackZero = 2,          // zero the data
  kTrackExactSize = 4,     // exactly the requested size, no guard
  kTrackKeepOnFree = 8,    // freeing leaves the block alone
  kTrackNoGuardCheck = 16,
  kTrackOtherEnd = 32,     // the entry goes to the front of the chain
  kTrackLeavePointer = 128,
  kTrackForceFree = 256,   // free even with kTrackKeepOnFree
};

struct TrackEntry {
  ChainNode node;
  int32_t requested = 0;
  int32_t block_size = 0;
  char label[16] = {};
  uint16_t flags = 0;
  // What the caller's variable held when the block was made; a free finds
  // its entry by the variable's value at that time.
  void* recorded = nullptr;
  void** variable = nullptr;
  ChainAnchor* chain = nullptr;
};

// Block size for a request: (n + 19) / 16 * 16, or n with kTrackExactSize.
size_t TrackedBlockSize(size_t requested, unsigned flags);

// Allocates a block and stores it in *variable (when not null). Ends the
// process with exit code 4 when memory is exhausted.
void* TrackedAlloc(ChainAnchor* chain, void** variable, size_t size, unsigned flags,
                   const char* file, int line, const char* expression);

char* TrackedStrdup(ChainAnchor* chain, char** variable, const char* text, unsigned flags,
                    const char* file, int line, const char* expression);

void TrackedFree(ChainAnchor* chain, void** variable, unsigned flags, const char* file, int line,
                 const char* expression);

// Checks and frees every entry of the chain and the block it records.
void TrackedFreeAll(ChainAnchor* chain);

// Takes the entry of `block` out of the chain (the block itself stays
// allocated, now untracked). Returns the block, or null when no entry
// records it.
void* TrackedDetach(ChainAnchor* chain, void* block);

}  // namespace kvc

#define KVC_ALLOC(chain, var, size, flags) \
  ::kvc::TrackedAlloc(chain, reinterpret_cast<void**>(&(var)), size, flags, __FILE__, __LINE__, #var)
#define KVC_FREE(chain, var, flags) \
  ::kvc::TrackedFree(chain, reinterpret_cast<void**>(&(var)), flags, __FILE__, __LINE__, #var)
