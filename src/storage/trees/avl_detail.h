// The one implementation behind all families of AVL trees. A family is a node type and an order:
//
//   struct Order {
//     using Node = ...;                                    // balance, left, right
//     int compareKey(const Node& node, Key key) const;     // below 0: the node sorts first
//     bool before(const Node& a, const Node& b) const;     // strict, tells equal keys apart
//   };
//
// Insertion and removal walk down once and keep the links that they came through, so that the way
// back rewrites exactly those that a rotation changes, and ends as soon as the height stays.

#ifndef ZELTA_STORAGE_TREES_AVL_DETAIL_H
#define ZELTA_STORAGE_TREES_AVL_DETAIL_H

#include <cassert>
#include <cstddef>
#include <cstdint>

namespace zelta::avl {

/// A tree of 2^64 nodes is at most 1.44 * 64 levels high.
inline constexpr std::size_t kMaximumHeight = 96;

/// The links from the root to a place in the tree, and the side that was taken at each.
template <class Node>
class Path {
 public:
  void push(Node*& link, bool right) {
    assert(depth_ < kMaximumHeight);
    steps_[depth_++] = {&link, right};
  }
  [[nodiscard]] std::size_t depth() const { return depth_; }
  [[nodiscard]] bool right(std::size_t i) const { return steps_[i].right; }
  [[nodiscard]] Node*& link(std::size_t i) { return *steps_[i].link; }
  void relink(std::size_t i, Node*& link) { steps_[i].link = &link; }

 private:
  struct Step {
    Node** link;
    bool right;
  };
  Step steps_[kMaximumHeight];
  std::size_t depth_ = 0;
};

template <class Node>
void rotateLeft(Node*& link) {
  Node* node = link;
  Node* child = node->right;
  node->right = child->left;
  child->left = node;
  link = child;
}

template <class Node>
void rotateRight(Node*& link) {
  Node* node = link;
  Node* child = node->left;
  node->left = child->right;
  child->right = node;
  link = child;
}

/// Sets the balances of the three nodes of a double rotation: `grandchild` is on top now.
template <class Node>
void balanceDoubleRotation(Node* leftNode, Node* rightNode, Node* grandchild) {
  leftNode->balance = grandchild->balance > 0 ? -1 : 0;
  rightNode->balance = grandchild->balance < 0 ? 1 : 0;
  grandchild->balance = 0;
}

/// For a node of balance +2.
template <class Node>
void rebalanceRightHeavy(Node*& link) {
  Node* node = link;
  Node* child = node->right;
  assert(child != nullptr);  // the heavier side
  if (child->balance < 0) {
    Node* grandchild = child->left;
    assert(grandchild != nullptr);
    rotateRight(node->right);
    rotateLeft(link);
    balanceDoubleRotation(node, child, grandchild);
    return;
  }
  rotateLeft(link);
  node->balance = child->balance == 0 ? 1 : 0;
  child->balance = child->balance == 0 ? -1 : 0;
}

/// For a node of balance -2.
template <class Node>
void rebalanceLeftHeavy(Node*& link) {
  Node* node = link;
  Node* child = node->left;
  assert(child != nullptr);  // the heavier side
  if (child->balance > 0) {
    Node* grandchild = child->right;
    assert(grandchild != nullptr);
    rotateLeft(node->left);
    rotateRight(link);
    balanceDoubleRotation(child, node, grandchild);
    return;
  }
  rotateRight(link);
  node->balance = child->balance == 0 ? -1 : 0;
  child->balance = child->balance == 0 ? 1 : 0;
}

template <class Node>
void rebalance(Node*& link) {
  if (link->balance > 1) {
    rebalanceRightHeavy(link);
  } else if (link->balance < -1) {
    rebalanceLeftHeavy(link);
  }
}

/// 1 if the tree grew in height.
template <class Order>
int insert(const Order& order, typename Order::Node* node, typename Order::Node*& root) {
  Path<typename Order::Node> path;
  typename Order::Node** link = &root;
  while (*link != nullptr) {
    const bool right = order.before(**link, *node);
    path.push(*link, right);
    link = right ? &(*link)->right : &(*link)->left;
  }
  node->balance = 0;
  node->left = nullptr;
  node->right = nullptr;
  *link = node;
  for (std::size_t i = path.depth(); i-- > 0;) {
    auto*& up = path.link(i);
    up->balance += path.right(i) ? 1 : -1;
    if (up->balance == 0) return 0;
    if (up->balance > 1 || up->balance < -1) {
      rebalance(up);
      return 0;
    }
  }
  return 1;
}

/// Takes a node with children out of its place: its neighbour on the heavier side comes there.
/// `path` leads to the node's link, and afterwards to the place that the neighbour left.
template <class Node>
void replaceByNeighbour(Path<Node>& path, Node*& link) {
  Node* node = link;
  const std::size_t top = path.depth();
  const bool fromRight = node->balance > 0;
  path.push(link, fromRight);
  Node** place = fromRight ? &node->right : &node->left;
  assert(*place != nullptr);  // a node with children has one on the heavier side
  for (;;) {
    Node*& next = fromRight ? (*place)->left : (*place)->right;
    if (next == nullptr) break;
    path.push(*place, !fromRight);
    place = &next;
  }
  Node* neighbour = *place;
  *place = fromRight ? neighbour->right : neighbour->left;
  neighbour->left = node->left;
  neighbour->right = node->right;
  neighbour->balance = node->balance;
  link = neighbour;
  // The link below the removed node was a part of it.
  if (path.depth() > top + 1) {
    path.relink(top + 1, fromRight ? neighbour->right : neighbour->left);
  }
}

/// 1 if the tree shrank in height. Finds the very node, by its order and then by its address.
template <class Order>
int remove(const Order& order, typename Order::Node* node, typename Order::Node*& root) {
  Path<typename Order::Node> path;
  typename Order::Node** link = &root;
  while (*link != node) {
    if (*link == nullptr) return 0;
    const bool right = order.before(**link, *node);
    path.push(*link, right);
    link = right ? &(*link)->right : &(*link)->left;
  }
  if (node->left == nullptr && node->right == nullptr) {
    *link = nullptr;
  } else {
    replaceByNeighbour(path, *link);
  }
  for (std::size_t i = path.depth(); i-- > 0;) {
    auto*& up = path.link(i);
    up->balance -= path.right(i) ? 1 : -1;
    rebalance(up);
    if (up->balance != 0) return 0;
  }
  return 1;
}

/// The first node met on the way down whose key is equal.
template <class Order, class Node, class Key>
Node* find(const Order& order, Node* root, const Key& key) {
  while (root != nullptr) {
    const int sign = order.compareKey(*root, key);
    if (sign == 0) break;
    root = sign < 0 ? root->right : root->left;
  }
  return root;
}

/// The first node in order whose key is greater.
template <class Order, class Node, class Key>
Node* findNext(const Order& order, Node* root, const Key& key) {
  Node* found = nullptr;
  while (root != nullptr) {
    if (order.compareKey(*root, key) > 0) {
      found = root;
      root = root->left;
    } else {
      root = root->right;
    }
  }
  return found;
}

/// The last node in order whose key is less.
template <class Order, class Node, class Key>
Node* findPrevious(const Order& order, Node* root, const Key& key) {
  Node* found = nullptr;
  while (root != nullptr) {
    if (order.compareKey(*root, key) < 0) {
      found = root;
      root = root->right;
    } else {
      root = root->left;
    }
  }
  return found;
}

template <class Node>
std::uint32_t count(const Node* root) {
  std::uint32_t nodes = 0;
  for (; root != nullptr; root = root->right) nodes += count(root->left) + 1;
  return nodes;
}

/// Hands each node to `use`, left subtree and right subtree first. The node's links were read
/// before, so that `use` may destroy it or move it to another tree.
template <class Node, class Use>
void postOrder(Node* root, const Use& use) {
  if (root == nullptr) return;
  postOrder(root->left, use);
  postOrder(root->right, use);
  use(root);
}

/// Hands each node to `use` in ascending order until that returns false.
template <class Node, class Use>
bool inOrder(Node* root, const Use& use) {
  for (; root != nullptr; root = root->right) {
    if (root->left != nullptr && !inOrder(root->left, use)) return false;
    if (!use(root)) return false;
  }
  return true;
}

/// Nodes in ascending order; stops when `end` is reached.
template <class Node>
Node** flatten(Node* root, Node** out, Node* const* end) {
  inOrder(root, [&](Node* node) {
    if (out == end) return false;
    *out++ = node;
    return true;
  });
  return out;
}

/// Walks a tree in ascending order without recursion. A node that was handed out may be destroyed
/// or moved before the next step.
template <class Node>
class Walk {
 public:
  explicit Walk(Node* root) { descend(root); }
  /// The next node, or null.
  Node* next() {
    if (depth_ == 0) return nullptr;
    Node* node = stack_[--depth_];
    descend(node->right);
    return node;
  }

 private:
  void descend(Node* node) {
    for (; node != nullptr; node = node->left) {
      assert(depth_ < kMaximumHeight);
      stack_[depth_++] = node;
    }
  }
  Node* stack_[kMaximumHeight];
  std::size_t depth_ = 0;
};

/// Unhooks a whole tree from its link.
template <class Node>
Node* detachAll(Node*& root) {
  Node* tree = root;
  root = nullptr;
  return tree;
}

}  // namespace zelta::avl

#endif  // ZELTA_STORAGE_TREES_AVL_DETAIL_H
