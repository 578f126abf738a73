#pragma once
// Lets any ordered map from row to selection state (std::map, boost::container::map and
// the like) hold the run boundaries of a range set: it gives the map the small interface
// basic_range_set expects of its boundary store (see selection.h).

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace tessel::windows::new_controls::listview::impl {

template <class map>
class boundary_map {
public:
    class iterator {
    public:
        iterator() = default;
        explicit iterator(typename map::iterator at) noexcept : at_(at) {}
        [[nodiscard]] std::int64_t row() const noexcept { return at_->first; }
        [[nodiscard]] bool selected() const noexcept { return at_->second; }
        iterator& operator++() noexcept { ++at_; return *this; }
        iterator& operator--() noexcept { --at_; return *this; }
        friend bool operator==(const iterator&, const iterator&) = default;

    private:
        friend class boundary_map;
        typename map::iterator at_{};
    };

    [[nodiscard]] iterator begin() const noexcept { return iterator(map_.begin()); }
    [[nodiscard]] iterator end() const noexcept { return iterator(map_.end()); }
    [[nodiscard]] iterator lower_bound(std::int64_t row) const { return iterator(map_.lower_bound(row)); }
    [[nodiscard]] std::size_t size() const noexcept { return map_.size(); }
    void set_selected(iterator at, bool selected) noexcept { at.at_->second = selected; }
    void insert(std::int64_t row, bool selected) { map_.emplace(row, selected); }
    void erase(std::int64_t first, std::int64_t last)
    {
        map_.erase(map_.lower_bound(first), map_.upper_bound(last));
    }
    void clear() noexcept { map_.clear(); }

private:
    // The store's lookups are const for the range set's const queries, but hand out
    // iterators the range set later passes back to set_selected.
    mutable map map_;
};

}  // namespace tessel::windows::new_controls::listview::impl
