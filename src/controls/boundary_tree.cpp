#include "controls/boundary_tree.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace tessel::windows::new_controls::listview::impl {

namespace {

// Asks for every cache line of a node at once: a binary search over a node that is not
// in the cache then waits for about one miss instead of one per halving.
template <class node>
void prefetch(const node* at) noexcept
{
    const char* bytes = reinterpret_cast<const char*>(at);
    for (std::size_t offset = 0; offset < sizeof(node); offset += 64)
        __builtin_prefetch(bytes + offset);
}

// The child whose rows can hold `row`: the last one whose separator is not above it.
int child_for(const boundary_tree::inner& node, std::int64_t row) noexcept
{
    return int(std::upper_bound(node.separators, node.separators + node.count - 1, row) - node.separators);
}

int lower_index(const boundary_tree::leaf& at, std::int64_t row) noexcept
{
    return int(std::lower_bound(at.rows, at.rows + at.count, row) - at.rows);
}

void insert_at(boundary_tree::leaf& at, int index, std::int64_t row, bool selected) noexcept
{
    std::memmove(at.rows + index + 1, at.rows + index, sizeof(std::int64_t) * std::size_t(at.count - index));
    std::memmove(at.selected + index + 1, at.selected + index, std::size_t(at.count - index));
    at.rows[index] = row;
    at.selected[index] = selected;
    ++at.count;
}

// Moves `n` entries of `from`, starting at `index`, to `to` at `at`; both must have room.
void move_entries(boundary_tree::leaf& from, int index, int n, boundary_tree::leaf& to, int at) noexcept
{
    std::memmove(to.rows + at + n, to.rows + at, sizeof(std::int64_t) * std::size_t(to.count - at));
    std::memmove(to.selected + at + n, to.selected + at, std::size_t(to.count - at));
    std::memcpy(to.rows + at, from.rows + index, sizeof(std::int64_t) * std::size_t(n));
    std::memcpy(to.selected + at, from.selected + index, std::size_t(n));
    to.count += n;
    std::memmove(from.rows + index, from.rows + index + n, sizeof(std::int64_t) * std::size_t(from.count - index - n));
    std::memmove(from.selected + index, from.selected + index + n, std::size_t(from.count - index - n));
    from.count -= n;
}

void remove_child(boundary_tree::inner& node, int child) noexcept
{
    std::memmove(node.children + child, node.children + child + 1, sizeof(void*) * std::size_t(node.count - child - 1));
    std::memmove(node.separators + child - 1, node.separators + child,
                 sizeof(std::int64_t) * std::size_t(node.count - child - 1));
    --node.count;
}

void free_node(void* node, int level) noexcept
{
    if (level == 1) {
        delete static_cast<boundary_tree::leaf*>(node);
        return;
    }
    auto* at = static_cast<boundary_tree::inner*>(node);
    for (int i = 0; i < at->count; ++i)
        free_node(at->children[i], level - 1);
    delete at;
}

}  // namespace

boundary_tree::boundary_tree(boundary_tree&& other) noexcept { *this = std::move(other); }

boundary_tree& boundary_tree::operator=(boundary_tree&& other) noexcept
{
    if (this != &other) {
        clear();
        std::swap(root_, other.root_);
        std::swap(height_, other.height_);
        std::swap(first_, other.first_);
        std::swap(last_, other.last_);
        std::swap(size_, other.size_);
        std::swap(leaves_, other.leaves_);
        std::swap(inners_, other.inners_);
        other.finger_ = {};
    }
    return *this;
}

boundary_tree::~boundary_tree()
{
    clear();
    delete spare_leaf_;
    while (spare_inner_count_ > 0)
        delete spare_inners_[--spare_inner_count_];
}

boundary_tree::leaf* boundary_tree::leaf_for(std::int64_t row) const noexcept
{
    if (finger_.at && row >= finger_.low && row < finger_.high)
        return finger_.at;
    void* node = root_;
    finger_.low = std::numeric_limits<std::int64_t>::min();
    finger_.high = std::numeric_limits<std::int64_t>::max();
    for (int level = height_; level > 1; --level) {
        auto* at = static_cast<inner*>(node);
        prefetch(at);
        const int child = child_for(*at, row);
        if (child > 0)
            finger_.low = at->separators[child - 1];
        if (child < at->count - 1)
            finger_.high = at->separators[child];
        node = at->children[child];
    }
    finger_.at = static_cast<leaf*>(node);
    prefetch(finger_.at);
    return finger_.at;
}

boundary_tree::iterator boundary_tree::lower_bound(std::int64_t row) const noexcept
{
    if (!root_)
        return end();
    leaf* at = leaf_for(row);
    const int index = lower_index(*at, row);
    if (index == at->count && at->next)
        return {at->next, 0};
    return {at, index};
}

void boundary_tree::insert(std::int64_t row, bool selected)
{
    // Every node a split can need (a leaf, one inner node per level and a new root) is at
    // hand before anything changes, so a failed allocation leaves the tree as it was.
    if (!spare_leaf_)
        spare_leaf_ = new leaf;
    while (spare_inner_count_ < height_ + 1)
        spare_inners_[spare_inner_count_++] = new inner;

    if (!root_) {
        leaf* at = take_leaf();
        root_ = first_ = last_ = at;
        height_ = 1;
    }
    if (leaf* at = leaf_for(row); at->count < leaf_capacity) {
        insert_at(*at, lower_index(*at, row), row, selected);
        ++size_;
        return;
    }
    finger_ = {};  // the split moves rows and separators
    const split s = insert_into(root_, height_, row, selected);
    if (s.right) {
        inner* top = take_inner();
        top->children[0] = root_;
        top->children[1] = s.right;
        top->separators[0] = s.separator;
        top->count = 2;
        root_ = top;
        ++height_;
    }
    ++size_;
}

boundary_tree::leaf* boundary_tree::take_leaf() noexcept
{
    leaf* at = std::exchange(spare_leaf_, nullptr);
    *at = leaf{};
    ++leaves_;
    return at;
}

boundary_tree::inner* boundary_tree::take_inner() noexcept
{
    inner* at = spare_inners_[--spare_inner_count_];
    *at = inner{};
    ++inners_;
    return at;
}

boundary_tree::split boundary_tree::insert_into(void* node, int level, std::int64_t row, bool selected)
{
    if (level == 1) {
        leaf& at = *static_cast<leaf*>(node);
        const int index = lower_index(at, row);
        if (at.count < leaf_capacity) {
            insert_at(at, index, row, selected);
            return {};
        }
        // Rows appended past the end of the list fill the last leaf instead of halving it.
        const int keep = index == leaf_capacity && !at.next ? leaf_capacity : leaf_capacity / 2;
        leaf& right = *take_leaf();
        move_entries(at, keep, leaf_capacity - keep, right, 0);
        right.previous = &at;
        right.next = at.next;
        (at.next ? at.next->previous : last_) = &right;
        at.next = &right;
        if (index <= keep && keep < leaf_capacity)
            insert_at(at, index, row, selected);
        else
            insert_at(right, index - keep, row, selected);
        return {&right, right.rows[0]};
    }

    inner& at = *static_cast<inner*>(node);
    const int child = child_for(at, row);
    const split below = insert_into(at.children[child], level - 1, row, selected);
    if (!below.right)
        return {};
    // All children and separators in order, with the new child after the split one.
    void* children[inner_capacity + 1];
    std::int64_t separators[inner_capacity];
    const int total = at.count + 1;
    std::copy(at.children, at.children + child + 1, children);
    children[child + 1] = below.right;
    std::copy(at.children + child + 1, at.children + at.count, children + child + 2);
    std::copy(at.separators, at.separators + child, separators);
    separators[child] = below.separator;
    std::copy(at.separators + child, at.separators + at.count - 1, separators + child + 1);
    if (total <= inner_capacity) {
        std::copy(children, children + total, at.children);
        std::copy(separators, separators + total - 1, at.separators);
        at.count = total;
        return {};
    }
    // Appending keeps the left node nearly full; the right one gets two children, so that
    // no inner node but the root ever has a single child.
    const int keep = child + 1 == at.count ? inner_capacity - 1 : total / 2;
    inner& right = *take_inner();
    std::copy(children, children + keep, at.children);
    std::copy(separators, separators + keep - 1, at.separators);
    at.count = keep;
    std::copy(children + keep, children + total, right.children);
    std::copy(separators + keep, separators + total - 1, right.separators);
    right.count = total - keep;
    return {&right, separators[keep - 1]};
}

void boundary_tree::erase(std::int64_t first, std::int64_t last) noexcept
{
    if (!root_ || first > last)
        return;
    if (first <= first_->rows[0] && last >= last_->rows[last_->count - 1]) {
        clear();
        return;
    }
    // Within one leaf that stays at least a quarter full (or is the root) nothing else
    // changes.
    if (leaf* at = leaf_for(first); last < finger_.high) {
        const int from = lower_index(*at, first);
        const int to = int(std::upper_bound(at->rows + from, at->rows + at->count, last) - at->rows);
        if (to == from)
            return;
        if (height_ == 1 ? at->count > to - from : at->count - (to - from) >= leaf_capacity / 4) {
            std::memmove(at->rows + from, at->rows + to, sizeof(std::int64_t) * std::size_t(at->count - to));
            std::memmove(at->selected + from, at->selected + to, std::size_t(at->count - to));
            at->count -= to - from;
            size_ -= std::size_t(to - from);
            return;
        }
    }
    finger_ = {};  // refilling and merging leaves moves rows and separators
    // One descent per leaf that holds rows of the range.
    for (;;) {
        std::size_t erased = 0;
        const bool more = erase_from(root_, height_, first, last, erased);
        size_ -= erased;
        while (height_ > 1 && static_cast<inner*>(root_)->count == 1) {
            auto* top = static_cast<inner*>(root_);
            root_ = top->children[0];
            delete top;
            --inners_;
            --height_;
        }
        if (height_ == 1 && static_cast<leaf*>(root_)->count == 0) {
            clear();
            return;
        }
        if (!more)
            return;
    }
}

// Erases [first, last] from the one leaf a descent to `first` reaches. When the range goes
// on in the next leaf, moves `first` to that leaf's first row and returns true.
bool boundary_tree::erase_from(void* node, int level, std::int64_t& first, std::int64_t last,
                               std::size_t& erased) noexcept
{
    if (level == 1) {
        leaf& at = *static_cast<leaf*>(node);
        const int from = lower_index(at, first);
        const int to = int(std::upper_bound(at.rows + from, at.rows + at.count, last) - at.rows);
        const bool more = to == at.count && at.next && at.next->rows[0] <= last;
        if (more)
            first = at.next->rows[0];
        std::memmove(at.rows + from, at.rows + to, sizeof(std::int64_t) * std::size_t(at.count - to));
        std::memmove(at.selected + from, at.selected + to, std::size_t(at.count - to));
        at.count -= to - from;
        erased += std::size_t(to - from);
        return more;
    }
    inner& at = *static_cast<inner*>(node);
    const int child = child_for(at, first);
    const std::size_t erased_before = erased;
    const bool more = erase_from(at.children[child], level - 1, first, last, erased);
    if (erased == erased_before)
        return more;  // a short leaf just split off for appends stays as it is
    const int left = level == 2 ? static_cast<leaf*>(at.children[child])->count
                                : static_cast<inner*>(at.children[child])->count;
    if (left < (level == 2 ? leaf_capacity : inner_capacity) / 4)
        rebalance(at, child, level - 1);
    return more;
}

// Refills the child that fell short from a neighbour, or merges the two.
void boundary_tree::rebalance(inner& parent, int child, int level) noexcept
{
    if (parent.count < 2)
        return;  // the root's only child; erase collapses the root
    const int left = child > 0 ? child - 1 : child;
    std::int64_t& separator = parent.separators[left];
    if (level == 1) {
        leaf& l = *static_cast<leaf*>(parent.children[left]);
        leaf& r = *static_cast<leaf*>(parent.children[left + 1]);
        const int total = l.count + r.count;
        if (total <= leaf_capacity) {
            move_entries(r, 0, r.count, l, l.count);
            l.next = r.next;
            (r.next ? r.next->previous : last_) = &l;
            delete &r;
            --leaves_;
            remove_child(parent, left + 1);
            return;
        }
        if (l.count < total / 2)
            move_entries(r, 0, total / 2 - l.count, l, l.count);
        else
            move_entries(l, total / 2, l.count - total / 2, r, 0);
        separator = r.rows[0];
        return;
    }
    inner& l = *static_cast<inner*>(parent.children[left]);
    inner& r = *static_cast<inner*>(parent.children[left + 1]);
    const int total = l.count + r.count;
    if (total <= inner_capacity) {
        l.separators[l.count - 1] = separator;
        std::copy(r.separators, r.separators + r.count - 1, l.separators + l.count);
        std::copy(r.children, r.children + r.count, l.children + l.count);
        l.count = total;
        delete &r;
        --inners_;
        remove_child(parent, left + 1);
        return;
    }
    const int target = total / 2;
    if (l.count < target) {
        const int n = target - l.count;
        l.separators[l.count - 1] = separator;
        std::copy(r.separators, r.separators + n - 1, l.separators + l.count);
        std::copy(r.children, r.children + n, l.children + l.count);
        separator = r.separators[n - 1];
        std::copy(r.separators + n, r.separators + r.count - 1, r.separators);
        std::copy(r.children + n, r.children + r.count, r.children);
        l.count += n;
        r.count -= n;
    } else {
        const int n = l.count - target;
        std::copy_backward(r.separators, r.separators + r.count - 1, r.separators + r.count - 1 + n);
        std::copy_backward(r.children, r.children + r.count, r.children + r.count + n);
        r.separators[n - 1] = separator;
        std::copy(l.separators + l.count - n, l.separators + l.count - 1, r.separators);
        std::copy(l.children + l.count - n, l.children + l.count, r.children);
        separator = l.separators[l.count - n - 1];
        l.count -= n;
        r.count += n;
    }
}

void boundary_tree::clear() noexcept
{
    finger_ = {};
    // A single selection clears and refills one leaf on every click: keep it.
    if (height_ == 1 && !spare_leaf_)
        spare_leaf_ = static_cast<leaf*>(std::exchange(root_, nullptr));
    else if (root_)
        free_node(root_, height_);
    root_ = nullptr;
    height_ = 0;
    first_ = last_ = nullptr;
    size_ = leaves_ = inners_ = 0;
}

std::size_t boundary_tree::node_bytes() const noexcept
{
    return leaves_ * sizeof(leaf) + inners_ * sizeof(inner);
}

}  // namespace tessel::windows::new_controls::listview::impl
