#pragma once
// A B+ tree of run boundaries (row -> selection state) for basic_range_set. A selection
// of a million rows can hold hundreds of thousands of runs; a node-per-boundary map then
// spends over a hundred bytes and one allocation per run and follows twenty pointers per
// lookup. Here the boundaries sit in leaves of up to 64 rows in one array (plus one byte
// of state each), chained both ways for iteration, under inner nodes of up to 64
// children: about ten bytes per boundary and three or four nodes per lookup.
//
// Separators in inner nodes are only lower bounds of their child's rows (erasing a
// child's first row leaves its separator alone), which is all a descent needs. Leaves
// that fall below a quarter are refilled from or merged with a neighbour. Appending past
// the last row fills leaves completely instead of splitting them in halves. The tree
// remembers the last leaf it reached (lookups are const but move that finger): use it
// from one thread.
// Inserting or erasing invalidates every iterator. Move-only.

#include <cstddef>
#include <cstdint>

namespace tessel::windows::new_controls::listview::impl {

class boundary_tree {
public:
    static constexpr int leaf_capacity = 64;
    static constexpr int inner_capacity = 64;

    struct leaf {
        std::int64_t rows[leaf_capacity];
        bool selected[leaf_capacity];
        int count = 0;
        leaf* previous = nullptr;
        leaf* next = nullptr;
    };
    struct inner {
        std::int64_t separators[inner_capacity - 1];  // separators[i]: lowest row of children[i + 1]
        void* children[inner_capacity];
        int count = 0;  // children
    };

    class iterator {
    public:
        iterator() = default;
        iterator(leaf* at, int index) noexcept : leaf_(at), index_(index) {}
        [[nodiscard]] std::int64_t row() const noexcept { return leaf_->rows[index_]; }
        [[nodiscard]] bool selected() const noexcept { return leaf_->selected[index_]; }
        iterator& operator++() noexcept
        {
            if (++index_ == leaf_->count && leaf_->next) {
                leaf_ = leaf_->next;
                index_ = 0;
            }
            return *this;
        }
        iterator& operator--() noexcept
        {
            if (index_ == 0) {
                leaf_ = leaf_->previous;
                index_ = leaf_->count;
            }
            --index_;
            return *this;
        }
        friend bool operator==(const iterator&, const iterator&) = default;

    private:
        friend class boundary_tree;
        leaf* leaf_ = nullptr;
        int index_ = 0;
    };

    boundary_tree() = default;
    boundary_tree(boundary_tree&& other) noexcept;
    boundary_tree& operator=(boundary_tree&& other) noexcept;
    ~boundary_tree();

    [[nodiscard]] iterator begin() const noexcept { return {first_, 0}; }
    [[nodiscard]] iterator end() const noexcept { return {last_, last_ ? last_->count : 0}; }
    [[nodiscard]] iterator lower_bound(std::int64_t row) const noexcept;
    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    void set_selected(iterator at, bool selected) noexcept { at.leaf_->selected[at.index_] = selected; }
    // `row` must not be in the tree yet.
    void insert(std::int64_t row, bool selected);
    // Every boundary in [first, last].
    void erase(std::int64_t first, std::int64_t last) noexcept;
    void clear() noexcept;

    // Bytes held in the tree's nodes, and the depth (0 when empty, 1 when the root is a leaf).
    [[nodiscard]] std::size_t node_bytes() const noexcept;
    [[nodiscard]] int height() const noexcept { return height_; }

private:
    struct split {
        void* right = nullptr;
        std::int64_t separator = 0;
    };
    split insert_into(void* node, int level, std::int64_t row, bool selected);
    bool erase_from(void* node, int level, std::int64_t& first, std::int64_t last, std::size_t& erased) noexcept;
    void rebalance(inner& parent, int child, int level) noexcept;
    leaf* leaf_for(std::int64_t row) const noexcept;
    leaf* take_leaf() noexcept;
    inner* take_inner() noexcept;

    void* root_ = nullptr;
    int height_ = 0;
    leaf* first_ = nullptr;
    leaf* last_ = nullptr;
    std::size_t size_ = 0;
    std::size_t leaves_ = 0, inners_ = 0;
    // Kept for the next insert; not counted in node_bytes. A tree of 2^63 rows is less than
    // 64 levels deep.
    // The leaf the last lookup reached and the rows it stands for: operations near the
    // previous one (a user works within one page) skip the descent. Dropped whenever rows
    // move between nodes.
    struct finger {
        leaf* at = nullptr;
        std::int64_t low = 0, high = 0;
    };
    mutable finger finger_;
    leaf* spare_leaf_ = nullptr;
    inner* spare_inners_[64]{};
    int spare_inner_count_ = 0;
};

}  // namespace tessel::windows::new_controls::listview::impl
