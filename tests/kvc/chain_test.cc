#include <gtest/gtest.h>

#include <vector>

#include "kvc/generic_chain.h"

namespace {

struct Item {
  kvc::ChainNode node;
  int value;
};

std::vector<int> Values(const kvc::ChainAnchor& anchor) {
  std::vector<int> values;
  for (void* p = kvc::ChainFirst(&anchor); p != nullptr; p = kvc::ChainNext(&static_cast<Item*>(p)->node))
    values.push_back(static_cast<Item*>(p)->value);
  return values;
}

// Walking backwards checks the prior links that a forward walk never uses.
std::vector<int> ValuesBackwards(const kvc::ChainAnchor& anchor) {
  std::vector<int> values;
  for (const kvc::ChainNode* n = anchor.last; n != nullptr; n = n->prior)
    values.push_back(static_cast<const Item*>(n->owner)->value);
  return values;
}

TEST(Chain, InsertionsKeepBothDirectionsAndTheCount) {
  kvc::ChainAnchor anchor;
  Item a{{}, 1}, b{{}, 2}, c{{}, 3}, d{{}, 4}, e{{}, 5};
  EXPECT_EQ(kvc::ChainAppend(&anchor, &b.node, &b), &b);
  kvc::ChainPrepend(&anchor, &a.node, &a);
  kvc::ChainAppend(&anchor, &d.node, &d);
  kvc::ChainInsertAfter(&anchor, &b.node, &c.node, &c);
  kvc::ChainInsertBefore(&anchor, nullptr, &e.node, &e);
  EXPECT_EQ(Values(anchor), (std::vector<int>{5, 1, 2, 3, 4}));
  EXPECT_EQ(ValuesBackwards(anchor), (std::vector<int>{4, 3, 2, 1, 5}));
  EXPECT_EQ(anchor.count, 5);
}

TEST(Chain, InsertAfterNothingAppendsAndRemovingEveryNodeEmptiesTheAnchor) {
  kvc::ChainAnchor anchor;
  Item a{{}, 1}, b{{}, 2};
  kvc::ChainInsertAfter(&anchor, nullptr, &a.node, &a);
  kvc::ChainInsertAfter(&anchor, nullptr, &b.node, &b);
  kvc::ChainInsertBefore(&anchor, &a.node, nullptr, nullptr);  // no node: nothing happens
  EXPECT_EQ(Values(anchor), (std::vector<int>{1, 2}));
  EXPECT_EQ(kvc::ChainAppend(nullptr, &a.node, &a), nullptr);
  kvc::ChainRemove(&anchor, &a.node, 'n');
  EXPECT_EQ(kvc::ChainRemove(&anchor, &b.node, 'n'), nullptr);
  EXPECT_EQ(anchor.first, nullptr);
  EXPECT_EQ(anchor.last, nullptr);
  EXPECT_EQ(anchor.count, 0);
  kvc::ChainNode bare;  // a node without owner yields itself
  EXPECT_EQ(kvc::ChainAppend(&anchor, &bare, nullptr), &bare);
  EXPECT_EQ(kvc::ChainFirst(&anchor), &bare);
}

TEST(Chain, RemoveYieldsTheNeighbourItsLetterAsksFor) {
  kvc::ChainAnchor anchor;
  Item a{{}, 1}, b{{}, 2}, c{{}, 3};
  for (Item* i : {&a, &b, &c}) kvc::ChainAppend(&anchor, &i->node, i);
  EXPECT_EQ(kvc::ChainRemove(&anchor, &b.node, 'P'), &a);
  EXPECT_EQ(b.node.next, nullptr);
  kvc::ChainInsertAfter(&anchor, &a.node, &b.node, &b);
  EXPECT_EQ(kvc::ChainRemove(&anchor, &b.node, 'a'), &c);
  kvc::ChainInsertAfter(&anchor, &a.node, &b.node, &b);
  EXPECT_EQ(kvc::ChainRemove(&anchor, &b.node, 'x'), &b);
  EXPECT_EQ(Values(anchor), (std::vector<int>{1, 3}));
  EXPECT_EQ(ValuesBackwards(anchor), (std::vector<int>{3, 1}));
  EXPECT_EQ(anchor.count, 2);
}

}  // namespace
