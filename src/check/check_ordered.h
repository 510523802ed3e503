// Trees whose keys stand in an order: B+Trees and lists of words. A branch has a separator between
// each two of its children, a leaf one value for each key and links to the leaves beside it.

#ifndef ZELTA_CHECK_CHECK_ORDERED_H
#define ZELTA_CHECK_CHECK_ORDERED_H

#include <cstdint>
#include <vector>

#include "check/check_tree.h"

namespace zelta::check {

struct OrderedNode : TreeNode {
  std::vector<std::uint32_t> keys;  ///< where the keys begin
  std::uint32_t keyEnd = 0;
  const char* low = nullptr;   ///< no key below it; null: no bound
  const char* high = nullptr;  ///< all keys below it

  [[nodiscard]] const char* key(std::uint32_t i) const { return bytes() + keys[i]; }
};

/// Bounds go down with the walk, so that every key is held against all separators above it; leaves
/// are held against the one before.
class OrderedWalk : public TreeWalk<OrderedNode> {
 public:
  /// What nodes are like. A count of free units, if there is one, ends the head.
  struct Form {
    std::uint32_t leafHead;
    std::uint32_t branchHead;
    std::uint32_t valueBytes;  ///< in a leaf
    std::uint32_t freeUnit;    ///< bytes; 0: free room is not counted
  };
  OrderedWalk(const WalkContext& context, const Form& form) : TreeWalk(context), form_(form) {}

 protected:
  /// Bytes of the key at `at`, of which `left` are there at most; 0, and reported: it is none.
  virtual std::uint64_t keyBytes(const OrderedNode& node, std::uint64_t at, std::uint64_t left) = 0;
  /// Below 0, 0 or above 0.
  [[nodiscard]] virtual int compare(const char* a, const char* b) const = 0;
  /// Whether a node may be so large. False is reported.
  virtual bool sizeFits(const PageHead& head) = 0;
  virtual void visitEntry(const OrderedNode& leaf, std::uint32_t number) = 0;

  [[nodiscard]] std::uint64_t valueOffset(const OrderedNode& node, std::uint32_t i) const {
    return node.size() - std::uint64_t{form_.valueBytes} * (std::uint64_t{i} + 1);
  }

 private:
  bool fits(const OrderedNode& node, const PageHead& head) final;
  bool examine(OrderedNode& node, const OrderedNode* parent, std::uint32_t number) final;
  [[nodiscard]] std::uint32_t childCount(const OrderedNode& branch) const final {
    return branch.count + 1;
  }
  void visitLeaf(const OrderedNode& leaf) final;
  void finish() final;

  [[nodiscard]] std::uint32_t head(const OrderedNode& node) const {
    return node.leaf ? form_.leafHead : form_.branchHead;
  }
  /// Bytes of values or of children's positions.
  [[nodiscard]] std::uint64_t tail(const OrderedNode& node) const {
    return node.leaf ? std::uint64_t{form_.valueBytes} * node.count
                     : 8 * (std::uint64_t{node.count} + 1);
  }
  bool findKeys(OrderedNode& node);
  void checkRoom(const OrderedNode& node);
  void checkKeys(const OrderedNode& node);
  void checkLinks(const OrderedNode& leaf);

  const Form form_;
  std::uint64_t lastLeaf_ = 0;  ///< the leaf before, and where it says that the next one is
  std::uint64_t lastNext_ = 0;
};

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_ORDERED_H
