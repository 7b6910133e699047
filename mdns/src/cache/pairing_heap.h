// An intrusive min-heap (pairing heap) on the wrapping millisecond clock: the
// nodes live in the caller's storage and carry their own links, so the heap
// needs no storage of its own and never allocates.  Insert is O(1); taking
// the earliest node and removing any node are O(log n) amortised.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace mdns {

template <class Node>
struct HeapLinks {
  Node* child;
  Node* sibling;
  Node* prev;   // the parent for a first child, else the left sibling
  int32_t key;  // a time: the earliest comes first
  bool linked;
};

// `Access` maps a node to its links: static HeapLinks<Node>& links(Node*).
template <class Node, class Access>
class PairingHeap {
 public:
  explicit PairingHeap(Node*& root) : root_(root) {}

  bool empty() const { return root_ == nullptr; }
  Node* top() const { return root_; }
  static bool contains(Node* n) { return L(n).linked; }
  static int32_t key_of(Node* n) { return L(n).key; }

  void insert(Node* n, int32_t key) {
    if (L(n).linked) {
      remove(n);
    }
    HeapLinks<Node>& l = L(n);
    l.child = l.sibling = l.prev = nullptr;
    l.key = key;
    l.linked = true;
    root_ = root_ == nullptr ? n : meld(root_, n);
    L(root_).prev = nullptr;
  }

  void remove(Node* n) {
    if (!L(n).linked) {
      return;
    }
    if (n == root_) {
      root_ = merge_pairs(L(n).child);
    } else {
      detach(n);
      Node* rest = merge_pairs(L(n).child);
      if (rest != nullptr) {
        root_ = meld(root_, rest);
      }
    }
    if (root_ != nullptr) {
      L(root_).prev = nullptr;
      L(root_).sibling = nullptr;
    }
    HeapLinks<Node>& l = L(n);
    l.child = l.sibling = l.prev = nullptr;
    l.linked = false;
  }

 private:
  static HeapLinks<Node>& L(Node* n) { return Access::links(n); }

  // Cuts `n` (not the root) and its subtree out of its parent's child list.
  static void detach(Node* n) {
    Node* prev = L(n).prev;
    Node* next = L(n).sibling;
    if (L(prev).child == n) {
      L(prev).child = next;
    } else {
      L(prev).sibling = next;
    }
    if (next != nullptr) {
      L(next).prev = prev;
    }
    L(n).sibling = L(n).prev = nullptr;
  }

  // Two roots become one; the later becomes the earlier's first child.
  static Node* meld(Node* a, Node* b) {
    if (time_diff(L(b).key, L(a).key) < 0) {
      Node* t = a;
      a = b;
      b = t;
    }
    Node* first = L(a).child;
    L(b).sibling = first;
    L(b).prev = a;
    if (first != nullptr) {
      L(first).prev = b;
    }
    L(a).child = b;
    L(a).sibling = nullptr;
    return a;
  }

  // The classic two passes, iteratively: pair up left to right, then meld the
  // pairs right to left.  Keeps the stack flat whatever the heap's shape.
  static Node* merge_pairs(Node* first) {
    if (first == nullptr) {
      return nullptr;
    }
    Node* pairs = nullptr;  // melded pairs, chained through `sibling` in reverse
    Node* n = first;
    while (n != nullptr) {
      Node* a = n;
      Node* b = L(a).sibling;
      n = b != nullptr ? L(b).sibling : nullptr;
      L(a).sibling = L(a).prev = nullptr;
      Node* m = a;
      if (b != nullptr) {
        L(b).sibling = L(b).prev = nullptr;
        m = meld(a, b);
      }
      L(m).sibling = pairs;
      pairs = m;
    }
    Node* result = pairs;
    Node* next = L(result).sibling;
    L(result).sibling = nullptr;
    while (next != nullptr) {
      Node* after = L(next).sibling;
      L(next).sibling = nullptr;
      result = meld(result, next);
      next = after;
    }
    return result;
  }

  Node*& root_;
};

}  // namespace mdns
