#include "kvc/tracked_memory.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"
#include "platform/environment.h"

namespace kvc {
namespace {

constexpr size_t kLargestRequest = 0x7FFFFFFF;  // sizes are recorded as 32-bit values
constexpr size_t kOverrunShown = 119;

bool ZeroEveryBlock() {
  static const bool zero = [] {
    const auto value = platform::GetEnv("COLL_ZEROMEM");
    const long n = value.has_value() ? strtol(value->c_str(), nullptr, 10) : 0;
    return n < 65535 && n == 1;
  }();
  return zero;
}

[[noreturn]] void OutOfMemory(const char* file, int line, const char* expression, size_t size) {
  Log('s', "utt5400", "Memory allocation error at:%s.%d - %s for %d bytes \n", file, line,
      expression, static_cast<int>(size));
  exit(4);
}

void RenderPrintable(const unsigned char* bytes, size_t count, char* out) {
  for (size_t i = 0; i < count; ++i) out[i] = (bytes[i] >= 0x20 && bytes[i] < 0x7F) ? static_cast<char>(bytes[i]) : '.';
  out[count] = '\0';
}

void CheckEntry(const TrackEntry* e, unsigned flags) {
  if (Options().alloc_trace) {
    const std::string& dump = Options().dump_file;
    FILE* out = dump.empty() ? stderr : fopen(dump.c_str(), "a");
    if (out != nullptr) {
      fprintf(out, "-+ malloc %8.8x - %5d(%5d) bytes ->%s\n",
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(e->recorded)), e->requested,
              e->block_size, e->label);
      if (out != stderr) fclose(out);
    }
  }
  if ((flags & kTrackNoGuardCheck) || e->recorded == nullptr) return;
  const auto* data = static_cast<const unsigned char*>(e->recorded);
  const int guard = e->block_size - e->requested;
  for (int i = 0; i < guard; ++i) {
    if (data[e->requested + i] == kGuardByte) continue;
    char shown[kOverrunShown + 1];
    RenderPrintable(data + e->requested, static_cast<size_t>(guard) < kOverrunShown ? guard : kOverrunShown, shown);
    const std::string& dump = Options().dump_file;
    if (dump.empty()) {
      Log('e', "utt5500", "Memory overrun- %5d bytes ->%s\n", guard, shown);
    } else if (FILE* out = fopen(dump.c_str(), "a")) {
      fprintf(out, "=== memory overrun- %5d bytes ->%s\n", guard, shown);
      fclose(out);
    }
    return;
  }
}

TrackEntry* FindEntry(ChainAnchor* chain, const void* recorded) {
  for (ChainNode* n = chain != nullptr ? chain->first : nullptr; n != nullptr; n = n->next) {
    auto* e = reinterpret_cast<TrackEntry*>(n);
    if (e->recorded == recorded) return e;
  }
  return nullptr;
}

void ReleaseEntry(TrackEntry* e) {
  ChainRemove(e->chain, &e->node, 'x');
  e->~TrackEntry();
  free(e);
}

}  // namespace

size_t TrackedBlockSize(size_t requested, unsigned flags) {
  return (flags & kTrackExactSize) ? requested : (requested + 19) / 16 * 16;
}

void* TrackedAlloc(ChainAnchor* chain, void** variable, size_t size, unsigned flags,
                   const char* file, int line, const char* expression) {
  if (flags & kTrackExactSize) flags |= kTrackNoGuardCheck;
  const size_t block_size = TrackedBlockSize(size, flags);
  auto* block = size > kLargestRequest ? nullptr : static_cast<unsigned char*>(malloc(block_size == 0 ? 1 : block_size));
  if (block == nullptr) OutOfMemory(file, line, expression, size);
  if ((flags & kTrackZero) || ZeroEveryBlock()) memset(block, 0, size);
  if (!(flags & kTrackNoGuardCheck)) memset(block + size, kGuardByte, block_size - size);
  if (!(flags & kTrackUntracked)) {
    void* raw = nullptr;
    TrackedAlloc(nullptr, &raw, sizeof(TrackEntry), kTrackUntracked | kTrackExactSize, file, line, "ddb_chain");
    auto* e = new (raw) TrackEntry;
    e->requested = static_cast<int32_t>(size);
    e->block_size = static_cast<int32_t>(block_size);
    snprintf(e->label, sizeof e->label, "%.15s", expression == nullptr ? "" : expression);
    e->flags = static_cast<uint16_t>(flags);
    // Recorded before the variable receives the block: this decides which
    // later frees find their entry.
    e->recorded = variable != nullptr ? *variable : nullptr;
    e->variable = variable;
    e->chain = chain;
    if (flags & kTrackOtherEnd)
      ChainPrepend(chain, &e->node, e);
    else
      ChainAppend(chain, &e->node, e);
  }
  if (variable != nullptr) *variable = block;
  return block;
}

char* TrackedStrdup(ChainAnchor* chain, char** variable, const char* text, unsigned flags,
                    const char* file, int line, const char* expression) {
  const size_t n = strlen(text) + 1;
  auto* copy = static_cast<char*>(
      TrackedAlloc(chain, reinterpret_cast<void**>(variable), n, flags, file, line, expression));
  memcpy(copy, text, n);
  return copy;
}

void TrackedFree(ChainAnchor* chain, void** variable, unsigned flags, const char* file, int line,
                 const char* expression) {
  if (!(flags & kTrackUntracked)) {
    TrackEntry* e = FindEntry(chain, *variable);
    if (e != nullptr) {
      flags |= e->flags;
      CheckEntry(e, flags);
      ReleaseEntry(e);
    } else {
      Log('w', "utt3500", "Could not find ddb_chain entry. %s(%d) %s\n", file, line, expression);
    }
  }
  if ((flags & kTrackKeepOnFree) && !(flags & kTrackForceFree)) return;
  free(*variable);
  if (!(flags & kTrackLeavePointer)) *variable = nullptr;
}

void TrackedFreeAll(ChainAnchor* chain) {
  while (chain != nullptr && chain->first != nullptr) {
    auto* e = reinterpret_cast<TrackEntry*>(chain->first);
    CheckEntry(e, e->flags);
    free(e->recorded);
    ReleaseEntry(e);
  }
}

void* TrackedDetach(ChainAnchor* chain, void* block) {
  TrackEntry* e = FindEntry(chain, block);
  if (e == nullptr) return nullptr;
  ReleaseEntry(e);
  return block;
}

}  // namespace kvc
