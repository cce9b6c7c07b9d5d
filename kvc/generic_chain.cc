#include "kvc/generic_chain.h"

#include <cctype>
#include <cstdint>

#include "kvc/debug_switches.h"
#include "kvc/diagnostic_log.h"

namespace kvc {
namespace {

void* Yield(ChainNode* node) {
  if (node == nullptr) return nullptr;
  return node->owner != nullptr ? node->owner : node;
}

unsigned Low32(const void* p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

// Links `node` after `prior`; a null `prior` stands for the anchor, whose
// first and last words act as the sentinel's next and prior.
void* LinkAfter(ChainAnchor* anchor, ChainNode* prior, ChainNode* node, void* owner,
                const char* trace_id) {
  if (anchor == nullptr || node == nullptr) return nullptr;
  ChainNode*& next_link = prior != nullptr ? prior->next : anchor->first;
  ChainNode* next = next_link;
  ChainNode*& prior_link = next != nullptr ? next->prior : anchor->last;
  node->next = next;
  node->prior = prior_link;
  next_link = node;
  prior_link = node;
  node->owner = owner;
  ++anchor->count;
  if (Options().chain_trace)
    Log('t', trace_id, "anchor=%x, new=%x, prior=%x, next=%x.\n", Low32(anchor), Low32(node),
        Low32(node->prior), Low32(node->next));
  return Yield(node);
}

}  // namespace

void* ChainAppend(ChainAnchor* anchor, ChainNode* node, void* owner) {
  return LinkAfter(anchor, anchor != nullptr ? anchor->last : nullptr, node, owner, "ugc0550");
}

void* ChainPrepend(ChainAnchor* anchor, ChainNode* node, void* owner) {
  return LinkAfter(anchor, nullptr, node, owner, "ugc0560");
}

void* ChainInsertAfter(ChainAnchor* anchor, ChainNode* position, ChainNode* node, void* owner) {
  if (position == nullptr && anchor != nullptr) position = anchor->last;
  return LinkAfter(anchor, position, node, owner, "ugc0550");
}

void* ChainInsertBefore(ChainAnchor* anchor, ChainNode* position, ChainNode* node, void* owner) {
  return LinkAfter(anchor, position != nullptr ? position->prior : nullptr, node, owner, "ugc0560");
}

void* ChainRemove(ChainAnchor* anchor, ChainNode* node, char direction) {
  if (anchor == nullptr || node == nullptr) return nullptr;
  ChainNode* next = node->next;
  ChainNode* prior = node->prior;
  (prior != nullptr ? prior->next : anchor->first) = next;
  (next != nullptr ? next->prior : anchor->last) = prior;
  --anchor->count;
  if (Options().chain_remove_trace)
    Log('t', "ugc0570", "anchor=%x, old=%x, prior=%x, next=%x.\n", Low32(anchor), Low32(node),
        Low32(prior), Low32(next));
  node->next = node->prior = nullptr;
  switch (std::tolower(static_cast<unsigned char>(direction))) {
    case 'a':
    case 'n':
      return Yield(next);
    case 'b':
    case 'p':
      return Yield(prior);
    default:
      return Yield(node);
  }
}

void* ChainFirst(const ChainAnchor* anchor) { return anchor == nullptr ? nullptr : Yield(anchor->first); }

void* ChainNext(const ChainNode* node) { return node == nullptr ? nullptr : Yield(node->next); }

}  // namespace kvc
