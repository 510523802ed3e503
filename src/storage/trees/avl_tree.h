// Intrusive AVL trees. A tree is a bare root link that belongs to whoever holds the tree; no
// operation allocates memory, apart from intersect(). Equal keys are allowed; the nodes' addresses,
// or their object IDs, tell them apart. insert() and remove() keep every node's two subtrees within
// one level of each other, so that a tree of n nodes is at most 1.44 log2(n) levels high.
//
// Each family is a node type with a trait (avl_detail.h) that says how its keys are ordered.

#ifndef ZELTA_STORAGE_TREES_AVL_TREE_H
#define ZELTA_STORAGE_TREES_AVL_TREE_H

#include <cstdint>

namespace zelta {

/// Base of nodes with a 32-bit key. Destroying a tree runs the virtual destructor of every node.
struct UInt32AVLTree {
  UInt32AVLTree() = default;
  UInt32AVLTree(const UInt32AVLTree&) = delete;
  UInt32AVLTree& operator=(const UInt32AVLTree&) = delete;
  virtual ~UInt32AVLTree() = default;

  std::int32_t balance = 0;  ///< height(right) - height(left)
  std::uint32_t key = 0;
  UInt32AVLTree* left = nullptr;
  UInt32AVLTree* right = nullptr;
};

/// Base of nodes with a 64-bit key, and the node of a set of object IDs.
struct UInt64AVLTree {
  UInt64AVLTree() = default;
  UInt64AVLTree(UInt64AVLTree*& root, std::uint64_t key);  ///< inserts itself
  UInt64AVLTree(const UInt64AVLTree&) = delete;
  UInt64AVLTree& operator=(const UInt64AVLTree&) = delete;
  virtual ~UInt64AVLTree() = default;

  std::int32_t balance = 0;
  std::uint64_t key = 0;
  UInt64AVLTree* left = nullptr;
  UInt64AVLTree* right = nullptr;
};

/// 8-bit and 16-bit words. The text is heap memory (malloc), freed with the node.
struct AsciiKeyNode {
  std::int32_t balance = 0;
  char* key = nullptr;
  AsciiKeyNode* left = nullptr;
  AsciiKeyNode* right = nullptr;
};
struct WideKeyNode {
  std::int32_t balance = 0;
  char16_t* key = nullptr;
  WideKeyNode* left = nullptr;
  WideKeyNode* right = nullptr;
};

/// An index key with the object that it belongs to. Two objects with one key are two nodes, in the
/// order of their IDs. Key buffers come from a KeyPool, nodes from a KeyNodePool (key_pool.h).
struct ObjectKeyNode {
  std::uint32_t* key = nullptr;
  std::int32_t balance = 0;
  std::uint32_t tag = 0;  ///< for the user
  ObjectKeyNode* left = nullptr;
  ObjectKeyNode* right = nullptr;
  std::uint64_t objectID = 0;
  std::uint64_t extra = 0;  ///< for the user
};

/// How the keys of a tree of ObjectKeyNodes compare. `words` 0: variable keys, whose first word is
/// their length in words, itself included; else fixed keys of that many words.
struct KeyShape {
  std::uint32_t words = 0;
  [[nodiscard]] bool variable() const { return words == 0; }
};

/// -1, 0 or 1. Words are compared as unsigned numbers; of variable keys the first word takes no
/// part until all words of the shorter key were equal: then the shorter one sorts first.
[[nodiscard]] int compareKeys(KeyShape shape, const std::uint32_t* a, const std::uint32_t* b);

// -- The integer families and the sets of object IDs --------------------------------------------

[[nodiscard]] std::uint32_t count(const UInt32AVLTree* root);
[[nodiscard]] std::uint32_t count(const UInt64AVLTree* root);
[[nodiscard]] UInt32AVLTree* find(UInt32AVLTree* root, std::uint32_t key);
[[nodiscard]] UInt64AVLTree* find(UInt64AVLTree* root, std::uint64_t key);
/// The node with the smallest key above `key`, the greatest key below it; null if there is none.
[[nodiscard]] UInt32AVLTree* findNext(UInt32AVLTree* root, std::uint32_t key);
[[nodiscard]] UInt64AVLTree* findNext(UInt64AVLTree* root, std::uint64_t key);
[[nodiscard]] UInt32AVLTree* findPrevious(UInt32AVLTree* root, std::uint32_t key);
[[nodiscard]] UInt64AVLTree* findPrevious(UInt64AVLTree* root, std::uint64_t key);
/// Stores `key` in the node and links it. 1 if the tree grew in height.
int insert(UInt32AVLTree* node, UInt32AVLTree*& root, std::uint32_t key);
int insert(UInt64AVLTree* node, UInt64AVLTree*& root, std::uint64_t key);
/// Unlinks this very node; 1 if the tree shrank in height. A node that is not there changes
/// nothing.
int remove(UInt32AVLTree* node, UInt32AVLTree*& root);
int remove(UInt64AVLTree* node, UInt64AVLTree*& root);
/// Destroys all nodes and sets the link to null.
void destroyAll(UInt32AVLTree*& root);
void destroyAll(UInt64AVLTree*& root);
/// Keys in ascending order; stops when `end` is reached. Returns the place behind the last one
/// written.
std::uint64_t* flatten(const UInt64AVLTree* root, std::uint64_t* out, const std::uint64_t* end);
/// Nodes in ascending order.
UInt64AVLTree** flatten(UInt64AVLTree* root, UInt64AVLTree** out, UInt64AVLTree* const* end);
UInt32AVLTree** flatten(UInt32AVLTree* root, UInt32AVLTree** out, UInt32AVLTree* const* end);
/// Moves every node of `source` into `target`.
void mergeInto(UInt32AVLTree*& target, UInt32AVLTree*& source);
/// Union, difference, symmetric difference of sets: `source` is used up.
void addAll(UInt64AVLTree*& target, UInt64AVLTree*& source);
void subtractAll(UInt64AVLTree*& target, UInt64AVLTree*& source);
void toggleAll(UInt64AVLTree*& target, UInt64AVLTree*& source);
/// The nodes of `first` whose keys are in `second` too; both are used up.
[[nodiscard]] UInt64AVLTree* intersect(UInt64AVLTree*& first, UInt64AVLTree*& second);

// -- Words --------------------------------------------------------------------------------------

[[nodiscard]] std::uint32_t count(const AsciiKeyNode* root);
[[nodiscard]] std::uint32_t count(const WideKeyNode* root);
[[nodiscard]] AsciiKeyNode* find(AsciiKeyNode* root, const char* key);
[[nodiscard]] WideKeyNode* find(WideKeyNode* root, const char16_t* key);
[[nodiscard]] AsciiKeyNode* findNext(AsciiKeyNode* root, const char* key);
[[nodiscard]] WideKeyNode* findNext(WideKeyNode* root, const char16_t* key);
[[nodiscard]] AsciiKeyNode* findPrevious(AsciiKeyNode* root, const char* key);
[[nodiscard]] WideKeyNode* findPrevious(WideKeyNode* root, const char16_t* key);
int insert(AsciiKeyNode* node, AsciiKeyNode*& root);
int insert(WideKeyNode* node, WideKeyNode*& root);
int remove(AsciiKeyNode* node, AsciiKeyNode*& root);
int remove(WideKeyNode* node, WideKeyNode*& root);
void destroyAll(AsciiKeyNode*& root);
void destroyAll(WideKeyNode*& root);

// -- Keys of objects ----------------------------------------------------------------------------

[[nodiscard]] std::uint32_t count(const ObjectKeyNode* root);
/// `objectID` 0 means any object.
[[nodiscard]] ObjectKeyNode* find(ObjectKeyNode* root, KeyShape shape, const std::uint32_t* key,
                                  std::uint64_t objectID);
/// How many nodes have this key and this object.
[[nodiscard]] std::uint32_t countEqual(const ObjectKeyNode* root, KeyShape shape,
                                       const std::uint32_t* key, std::uint64_t objectID);
[[nodiscard]] ObjectKeyNode* findNext(ObjectKeyNode* root, KeyShape shape,
                                      const std::uint32_t* key);
[[nodiscard]] ObjectKeyNode* findPrevious(ObjectKeyNode* root, KeyShape shape,
                                          const std::uint32_t* key);
/// The node with the lowest key; null for an empty tree.
[[nodiscard]] ObjectKeyNode* findFirst(ObjectKeyNode* root);
int insert(ObjectKeyNode* node, ObjectKeyNode*& root, KeyShape shape);
int remove(ObjectKeyNode* node, ObjectKeyNode*& root, KeyShape shape);
void setTagAll(ObjectKeyNode* root, std::uint32_t tag);
/// Depth first, node before left before right.
[[nodiscard]] ObjectKeyNode* findByTag(ObjectKeyNode* root, std::uint32_t tag);
ObjectKeyNode** flatten(ObjectKeyNode* root, ObjectKeyNode** out, ObjectKeyNode* const* end);
void mergeInto(ObjectKeyNode*& target, ObjectKeyNode*& source, KeyShape shape);

}  // namespace zelta

#endif  // ZELTA_STORAGE_TREES_AVL_TREE_H
