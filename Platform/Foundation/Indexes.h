// Index collections of the platform: the not-found index, index sets and index
// paths.
//
//   IndexPath path = IndexPath().indexPathByAddingIndex(1).indexPathByAddingIndex(4);
//   path.length();            // 2
//   path.indexAtPosition(1);  // 4
#pragma once

#include <cstddef>
#include <limits>
#include <set>
#include <utility>
#include <vector>

namespace platform {

// What index searches return when nothing matches: the largest index.
inline constexpr std::size_t NSNotFound = std::numeric_limits<std::size_t>::max();

// Sorted, distinct indexes.
using IndexSet = std::set<std::size_t>;

// A path of indexes into nested collections; immutable, compared by value.
class IndexPath {
public:
    IndexPath() = default;
    explicit IndexPath(std::vector<std::size_t> indexes) : indexes_(std::move(indexes)) {}

    std::size_t length() const { return indexes_.size(); }
    // NSNotFound beyond the last position, as the platform answers.
    std::size_t indexAtPosition(std::size_t position) const
    {
        return position < indexes_.size() ? indexes_[position] : NSNotFound;
    }
    IndexPath indexPathByAddingIndex(std::size_t index) const
    {
        auto indexes = indexes_;
        indexes.push_back(index);
        return IndexPath(std::move(indexes));
    }

    friend bool operator==(const IndexPath&, const IndexPath&) = default;

private:
    std::vector<std::size_t> indexes_;
};

}  // namespace platform
