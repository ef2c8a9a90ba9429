// The rows a list will have while an update's row operations are planned:
// a sequence that inserts, removes and replaces at an index in logarithmic
// time, so that an update of many operations against a long list costs the
// operations and the rows they touch, not operations times rows.
//
// The sequence starts as the list's present rows, kept as one run of
// indexes into the list, and splits runs only where operations land. It is
// an implicit treap: each node is a run of present rows or one new row, and
// its position is the count of rows before it.
#ifndef TETHRIX_PROTOCOL_ROW_SEQUENCE_H
#define TETHRIX_PROTOCOL_ROW_SEQUENCE_H

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace tethrix::protocol {

/// `List` gives its present rows by `getItem(i)` for i below `itemCount()`.
template <typename List, typename RowPtr>
class RowSequence {
public:
    explicit RowSequence(const List& list) : list(list) {
        if (list.itemCount() != 0)
            root = makePiece(0, list.itemCount(), RowPtr());
    }

    std::size_t size() const { return totalOf(root); }

    RowPtr at(std::size_t index) const {
        int node = root;
        for (;;) {
            const Piece& piece = pieces[static_cast<std::size_t>(node)];
            const std::size_t before = totalOf(piece.left);
            if (index < before) {
                node = piece.left;
            } else if (index < before + piece.count) {
                return rowOf(piece, index - before);
            } else {
                index -= before + piece.count;
                node = piece.right;
            }
        }
    }

    /// `index` at most size().
    void insert(std::size_t index, RowPtr row) {
        auto [left, right] = split(root, index);
        root = merge(merge(left, makePiece(0, 1, std::move(row))), right);
    }

    /// Removes the row at `index`, below size(), and gives it.
    RowPtr remove(std::size_t index) {
        auto [left, rest] = split(root, index);
        auto [middle, right] = split(rest, 1);
        RowPtr row = rowOf(pieces[static_cast<std::size_t>(middle)], 0);
        root = merge(left, right);
        return row;
    }

    /// Replaces the row at `index`, below size().
    void replace(std::size_t index, RowPtr row) {
        auto [left, rest] = split(root, index);
        auto [middle, right] = split(rest, 1);
        (void)middle;
        root = merge(merge(left, makePiece(0, 1, std::move(row))), right);
    }

    /// Sets every row at once.
    void assign(std::vector<RowPtr> rows) {
        pieces.clear();
        root = none;
        for (RowPtr& row : rows)
            root = merge(root, makePiece(0, 1, std::move(row)));
    }

    std::vector<RowPtr> rows() const {
        std::vector<RowPtr> result;
        result.reserve(size());
        appendRows(root, result);
        return result;
    }

private:
    static constexpr int none = -1;

    /// `count` present rows from `first`, or one new row when `row` is set.
    struct Piece {
        std::size_t first;
        std::size_t count;
        RowPtr row;
        std::uint32_t priority;
        int left = none;
        int right = none;
        std::size_t total = 0;  ///< rows in this subtree
    };

    std::size_t totalOf(int node) const { return node == none ? 0 : pieces[static_cast<std::size_t>(node)].total; }

    RowPtr rowOf(const Piece& piece, std::size_t offset) const {
        return piece.row ? piece.row : list.getItem(piece.first + offset);
    }

    int makePiece(std::size_t first, std::size_t count, RowPtr row) {
        // xorshift: balance needs random-looking priorities, not good ones.
        seed ^= seed << 13;
        seed ^= seed >> 17;
        seed ^= seed << 5;
        pieces.push_back(Piece{first, count, std::move(row), seed, none, none, count});
        return static_cast<int>(pieces.size() - 1);
    }

    void update(int node) {
        Piece& piece = pieces[static_cast<std::size_t>(node)];
        piece.total = totalOf(piece.left) + piece.count + totalOf(piece.right);
    }

    /// The first `count` rows and the rest. A run that straddles the cut
    /// becomes two pieces.
    std::pair<int, int> split(int node, std::size_t count) {
        if (node == none)
            return {none, none};
        const std::size_t index = static_cast<std::size_t>(node);
        const std::size_t before = totalOf(pieces[index].left);
        if (count <= before) {
            auto [left, right] = split(pieces[index].left, count);
            pieces[index].left = right;
            update(node);
            return {left, node};
        }
        if (count >= before + pieces[index].count) {
            auto [left, right] = split(pieces[index].right, count - before - pieces[index].count);
            pieces[index].right = left;
            update(node);
            return {node, right};
        }
        // Inside a run of present rows: the tail becomes a piece of its own,
        // placed first in the right subtree.
        const std::size_t head = count - before;
        const int tail = makePiece(pieces[index].first + head, pieces[index].count - head, RowPtr());
        pieces[index].count = head;
        const int right = merge(tail, pieces[index].right);
        pieces[index].right = none;
        update(node);
        return {node, right};
    }

    int merge(int left, int right) {
        if (left == none)
            return right;
        if (right == none)
            return left;
        if (pieces[static_cast<std::size_t>(left)].priority > pieces[static_cast<std::size_t>(right)].priority) {
            const int merged = merge(pieces[static_cast<std::size_t>(left)].right, right);
            pieces[static_cast<std::size_t>(left)].right = merged;
            update(left);
            return left;
        }
        const int merged = merge(left, pieces[static_cast<std::size_t>(right)].left);
        pieces[static_cast<std::size_t>(right)].left = merged;
        update(right);
        return right;
    }

    void appendRows(int node, std::vector<RowPtr>& result) const {
        // Iterative in-order walk: a treap is shallow on average, but a
        // walk need not count on it.
        std::vector<int> stack;
        while (node != none || !stack.empty()) {
            while (node != none) {
                stack.push_back(node);
                node = pieces[static_cast<std::size_t>(node)].left;
            }
            node = stack.back();
            stack.pop_back();
            const Piece& piece = pieces[static_cast<std::size_t>(node)];
            for (std::size_t i = 0; i < piece.count; ++i)
                result.push_back(rowOf(piece, i));
            node = piece.right;
        }
    }

    const List& list;
    std::vector<Piece> pieces;
    int root = none;
    std::uint32_t seed = 2463534242u;
};

}  // namespace tethrix::protocol

#endif
