// An intrusive doubly linked list whose anchor is also the sentinel of both
// ends. A node sits at the start of the object that owns it; operations
// that yield a node yield its owner when one is set.
#pragma once

#include <cstdint>

namespace kvc {

struct ChainNode {
  ChainNode* next = nullptr;
  ChainNode* prior = nullptr;
  void* owner = nullptr;
};

// All zero when empty.
struct ChainAnchor {
  ChainNode* first = nullptr;
  ChainNode* last = nullptr;
  void* reserved = nullptr;
  int32_t count = 0;
};

void* ChainAppend(ChainAnchor* anchor, ChainNode* node, void* owner);
void* ChainPrepend(ChainAnchor* anchor, ChainNode* node, void* owner);
// After `position`, or after the last node when it is null.
void* ChainInsertAfter(ChainAnchor* anchor, ChainNode* position, ChainNode* node, void* owner);
// Before `position`, or before the first node when it is null.
void* ChainInsertBefore(ChainAnchor* anchor, ChainNode* position, ChainNode* node, void* owner);

// Unlinks `node`. `direction` (any case) chooses what is yielded: 'a'/'n'
// the former next node, 'b'/'p' the former prior node, anything else the
// removed node.
void* ChainRemove(ChainAnchor* anchor, ChainNode* node, char direction);

void* ChainFirst(const ChainAnchor* anchor);
void* ChainNext(const ChainNode* node);

}  // namespace kvc
