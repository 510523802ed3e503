#include "storage/trees/avl_tree.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "storage/trees/avl_detail.h"

namespace zelta {

namespace {

template <class Number>
int compareNumbers(Number a, Number b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

/// Nodes with an integer key; equal keys lie in the order of the nodes' addresses.
template <class NodeType>
struct IntegerOrder {
  using Node = NodeType;
  using Key = decltype(Node::key);
  int compareKey(const Node& node, Key key) const { return compareNumbers(node.key, key); }
  bool before(const Node& a, const Node& b) const {
    if (a.key != b.key) return a.key < b.key;
    return std::less<const Node*>()(&a, &b);
  }
};
constexpr IntegerOrder<UInt32AVLTree> kOrder32{};
constexpr IntegerOrder<UInt64AVLTree> kOrder64{};

int compareTexts(const char* a, const char* b) { return std::strcmp(a, b); }

int compareTexts(const char16_t* a, const char16_t* b) {
  while (*a == *b && *a != 0) ++a, ++b;
  return static_cast<int>(*a) - static_cast<int>(*b);
}

/// Nodes with a text, in the order of its units; equal texts in the order of addresses.
template <class NodeType>
struct TextOrder {
  using Node = NodeType;
  template <class Text>
  int compareKey(const Node& node, const Text* key) const {
    return compareTexts(node.key, key);
  }
  bool before(const Node& a, const Node& b) const {
    const int sign = compareTexts(a.key, b.key);
    return sign != 0 ? sign < 0 : std::less<const Node*>()(&a, &b);
  }
};
constexpr TextOrder<AsciiKeyNode> kAsciiOrder{};
constexpr TextOrder<WideKeyNode> kWideOrder{};

/// Keys of objects; equal keys lie in the order of their objects' IDs.
struct ObjectKeyOrder {
  using Node = ObjectKeyNode;
  struct Exact {
    const std::uint32_t* key;
    std::uint64_t objectID;
  };
  int compareKey(const Node& node, const std::uint32_t* key) const {
    return compareKeys(shape, node.key, key);
  }
  int compareKey(const Node& node, const Exact& exact) const {
    const int sign = compareKeys(shape, node.key, exact.key);
    return sign != 0 ? sign : compareNumbers(node.objectID, exact.objectID);
  }
  bool before(const Node& a, const Node& b) const {
    const int sign = compareKey(a, Exact{b.key, b.objectID});
    return sign != 0 ? sign < 0 : std::less<const Node*>()(&a, &b);
  }
  KeyShape shape;
};

template <class Node>
void destroyPolymorphic(Node*& root) {
  avl::postOrder(avl::detachAll(root), [](Node* node) { delete node; });
}

template <class Node>
void destroyTexts(Node*& root) {
  avl::postOrder(avl::detachAll(root), [](Node* node) {
    std::free(node->key);
    delete node;
  });
}

int compareWords(const std::uint32_t* a, const std::uint32_t* b, std::uint32_t from,
                 std::uint32_t to) {
  for (std::uint32_t i = from; i < to; ++i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return 0;
}

}  // namespace

int compareKeys(KeyShape shape, const std::uint32_t* a, const std::uint32_t* b) {
  if (!shape.variable()) return compareWords(a, b, 0, shape.words);
  const int sign = compareWords(a, b, 1, std::min(a[0], b[0]));
  return sign != 0 ? sign : compareNumbers(a[0], b[0]);
}

// -- The integer families and the sets of object IDs --------------------------------------------

UInt64AVLTree::UInt64AVLTree(UInt64AVLTree*& root, std::uint64_t newKey) {
  insert(this, root, newKey);
}

std::uint32_t count(const UInt32AVLTree* root) { return avl::count(root); }
std::uint32_t count(const UInt64AVLTree* root) { return avl::count(root); }

UInt32AVLTree* find(UInt32AVLTree* root, std::uint32_t key) {
  return avl::find(kOrder32, root, key);
}
UInt64AVLTree* find(UInt64AVLTree* root, std::uint64_t key) {
  return avl::find(kOrder64, root, key);
}
UInt32AVLTree* findNext(UInt32AVLTree* root, std::uint32_t key) {
  return avl::findNext(kOrder32, root, key);
}
UInt64AVLTree* findNext(UInt64AVLTree* root, std::uint64_t key) {
  return avl::findNext(kOrder64, root, key);
}
UInt32AVLTree* findPrevious(UInt32AVLTree* root, std::uint32_t key) {
  return avl::findPrevious(kOrder32, root, key);
}
UInt64AVLTree* findPrevious(UInt64AVLTree* root, std::uint64_t key) {
  return avl::findPrevious(kOrder64, root, key);
}

int insert(UInt32AVLTree* node, UInt32AVLTree*& root, std::uint32_t key) {
  node->key = key;
  return avl::insert(kOrder32, node, root);
}
int insert(UInt64AVLTree* node, UInt64AVLTree*& root, std::uint64_t key) {
  node->key = key;
  return avl::insert(kOrder64, node, root);
}

int remove(UInt32AVLTree* node, UInt32AVLTree*& root) { return avl::remove(kOrder32, node, root); }
int remove(UInt64AVLTree* node, UInt64AVLTree*& root) { return avl::remove(kOrder64, node, root); }

void destroyAll(UInt32AVLTree*& root) { destroyPolymorphic(root); }
void destroyAll(UInt64AVLTree*& root) { destroyPolymorphic(root); }

std::uint64_t* flatten(const UInt64AVLTree* root, std::uint64_t* out, const std::uint64_t* end) {
  avl::inOrder(root, [&](const UInt64AVLTree* node) {
    if (out == end) return false;
    *out++ = node->key;
    return true;
  });
  return out;
}
UInt64AVLTree** flatten(UInt64AVLTree* root, UInt64AVLTree** out, UInt64AVLTree* const* end) {
  return avl::flatten(root, out, end);
}
UInt32AVLTree** flatten(UInt32AVLTree* root, UInt32AVLTree** out, UInt32AVLTree* const* end) {
  return avl::flatten(root, out, end);
}

void mergeInto(UInt32AVLTree*& target, UInt32AVLTree*& source) {
  avl::postOrder(avl::detachAll(source),
                 [&](UInt32AVLTree* node) { avl::insert(kOrder32, node, target); });
}

void addAll(UInt64AVLTree*& target, UInt64AVLTree*& source) {
  avl::postOrder(avl::detachAll(source), [&](UInt64AVLTree* node) {
    if (find(target, node->key) != nullptr) {
      delete node;
    } else {
      avl::insert(kOrder64, node, target);
    }
  });
}

void subtractAll(UInt64AVLTree*& target, UInt64AVLTree*& source) {
  avl::postOrder(avl::detachAll(source), [&](UInt64AVLTree* node) {
    if (UInt64AVLTree* match = find(target, node->key); match != nullptr) {
      remove(match, target);
      delete match;
    }
    delete node;
  });
}

void toggleAll(UInt64AVLTree*& target, UInt64AVLTree*& source) {
  avl::postOrder(avl::detachAll(source), [&](UInt64AVLTree* node) {
    if (UInt64AVLTree* match = find(target, node->key); match != nullptr) {
      remove(match, target);
      delete match;
      delete node;
    } else {
      avl::insert(kOrder64, node, target);
    }
  });
}

UInt64AVLTree* intersect(UInt64AVLTree*& first, UInt64AVLTree*& second) {
  avl::Walk<UInt64AVLTree> walkFirst(avl::detachAll(first));
  avl::Walk<UInt64AVLTree> walkSecond(avl::detachAll(second));
  UInt64AVLTree* result = nullptr;
  UInt64AVLTree* other = walkSecond.next();
  while (UInt64AVLTree* node = walkFirst.next()) {
    while (other != nullptr && other->key < node->key) {
      delete other;
      other = walkSecond.next();
    }
    if (other != nullptr && other->key == node->key) {
      avl::insert(kOrder64, node, result);
    } else {
      delete node;
    }
  }
  for (; other != nullptr; other = walkSecond.next()) delete other;
  return result;
}

// -- Words --------------------------------------------------------------------------------------

std::uint32_t count(const AsciiKeyNode* root) { return avl::count(root); }
std::uint32_t count(const WideKeyNode* root) { return avl::count(root); }
AsciiKeyNode* find(AsciiKeyNode* root, const char* key) {
  return avl::find(kAsciiOrder, root, key);
}
WideKeyNode* find(WideKeyNode* root, const char16_t* key) {
  return avl::find(kWideOrder, root, key);
}
AsciiKeyNode* findNext(AsciiKeyNode* root, const char* key) {
  return avl::findNext(kAsciiOrder, root, key);
}
WideKeyNode* findNext(WideKeyNode* root, const char16_t* key) {
  return avl::findNext(kWideOrder, root, key);
}
AsciiKeyNode* findPrevious(AsciiKeyNode* root, const char* key) {
  return avl::findPrevious(kAsciiOrder, root, key);
}
WideKeyNode* findPrevious(WideKeyNode* root, const char16_t* key) {
  return avl::findPrevious(kWideOrder, root, key);
}
int insert(AsciiKeyNode* node, AsciiKeyNode*& root) { return avl::insert(kAsciiOrder, node, root); }
int insert(WideKeyNode* node, WideKeyNode*& root) { return avl::insert(kWideOrder, node, root); }
int remove(AsciiKeyNode* node, AsciiKeyNode*& root) { return avl::remove(kAsciiOrder, node, root); }
int remove(WideKeyNode* node, WideKeyNode*& root) { return avl::remove(kWideOrder, node, root); }
void destroyAll(AsciiKeyNode*& root) { destroyTexts(root); }
void destroyAll(WideKeyNode*& root) { destroyTexts(root); }

// -- Keys of objects ----------------------------------------------------------------------------

std::uint32_t count(const ObjectKeyNode* root) { return avl::count(root); }

ObjectKeyNode* find(ObjectKeyNode* root, KeyShape shape, const std::uint32_t* key,
                    std::uint64_t objectID) {
  const ObjectKeyOrder order{shape};
  if (objectID == 0) return avl::find(order, root, key);
  return avl::find(order, root, ObjectKeyOrder::Exact{key, objectID});
}
std::uint32_t countEqual(const ObjectKeyNode* root, KeyShape shape, const std::uint32_t* key,
                         std::uint64_t objectID) {
  std::uint32_t equal = 0;
  while (root != nullptr) {
    int sign = compareKeys(shape, root->key, key);
    if (sign == 0 && root->objectID != objectID) sign = root->objectID < objectID ? -1 : 1;
    if (sign == 0) equal += 1 + countEqual(root->left, shape, key, objectID);
    root = sign > 0 ? root->left : root->right;
  }
  return equal;
}
ObjectKeyNode* findNext(ObjectKeyNode* root, KeyShape shape, const std::uint32_t* key) {
  return avl::findNext(ObjectKeyOrder{shape}, root, key);
}
ObjectKeyNode* findPrevious(ObjectKeyNode* root, KeyShape shape, const std::uint32_t* key) {
  return avl::findPrevious(ObjectKeyOrder{shape}, root, key);
}
ObjectKeyNode* findFirst(ObjectKeyNode* root) {
  while (root != nullptr && root->left != nullptr) root = root->left;
  return root;
}
int insert(ObjectKeyNode* node, ObjectKeyNode*& root, KeyShape shape) {
  return avl::insert(ObjectKeyOrder{shape}, node, root);
}
int remove(ObjectKeyNode* node, ObjectKeyNode*& root, KeyShape shape) {
  return avl::remove(ObjectKeyOrder{shape}, node, root);
}

void setTagAll(ObjectKeyNode* root, std::uint32_t tag) {
  avl::postOrder(root, [tag](ObjectKeyNode* node) { node->tag = tag; });
}

ObjectKeyNode* findByTag(ObjectKeyNode* root, std::uint32_t tag) {
  for (; root != nullptr; root = root->right) {
    if (root->tag == tag) return root;
    if (ObjectKeyNode* found = findByTag(root->left, tag); found != nullptr) return found;
  }
  return nullptr;
}

ObjectKeyNode** flatten(ObjectKeyNode* root, ObjectKeyNode** out, ObjectKeyNode* const* end) {
  return avl::flatten(root, out, end);
}

void mergeInto(ObjectKeyNode*& target, ObjectKeyNode*& source, KeyShape shape) {
  const ObjectKeyOrder order{shape};
  avl::postOrder(avl::detachAll(source),
                 [&](ObjectKeyNode* node) { avl::insert(order, node, target); });
}

}  // namespace zelta
