#pragma once
#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <vector>

// A view of one row of a crossing table: x, gamma beta x, y, gamma beta y, z,
// gamma beta z, time, flag (1.0 marks a valid row). Assigning to a view
// copies values into the row it shows.
template <class T>
class CrossingRowView {
 public:
  static constexpr std::size_t kWidth = 8;
  explicit CrossingRowView(T* values) : values_(values) {}
  template <class U>
  CrossingRowView(const CrossingRowView<U>& other) : values_(other.data()) {}
  CrossingRowView(const CrossingRowView&) = default;

  T& operator[](std::size_t k) const { return values_[k]; }
  T* data() const { return values_; }
  T* begin() const { return values_; }
  T* end() const { return values_ + kWidth; }
  static constexpr std::size_t size() { return kWidth; }
  std::vector<double> Values() const { return std::vector<double>(begin(), end()); }

  CrossingRowView& operator=(const CrossingRowView& other) {
    std::copy(other.begin(), other.end(), values_);
    return *this;
  }
  template <class U>
  CrossingRowView& operator=(const CrossingRowView<U>& other) {
    std::copy(other.begin(), other.end(), values_);
    return *this;
  }
  // Missing values are zero.
  CrossingRowView& operator=(std::initializer_list<double> values) {
    std::fill(std::copy(values.begin(), values.begin() + std::min(values.size(), kWidth), values_), end(), 0.0);
    return *this;
  }

  template <class U>
  bool operator==(const CrossingRowView<U>& other) const {
    return std::equal(begin(), end(), other.begin());
  }
  template <class U>
  bool operator!=(const CrossingRowView<U>& other) const {
    return !(*this == other);
  }
  bool operator==(const std::vector<double>& other) const {
    return other.size() == kWidth && std::equal(begin(), end(), other.begin());
  }
  bool operator!=(const std::vector<double>& other) const { return !(*this == other); }

 private:
  T* values_;
};

using CrossingRow = CrossingRowView<double>;
using ConstCrossingRow = CrossingRowView<const double>;

// One row per particle slot, the rows side by side in one array and each on
// a cache line of its own: a pass over the bunch reads the table as one
// stream, with no pointer to follow per row.
class CrossingTable {
 public:
  static constexpr std::size_t kWidth = CrossingRow::kWidth;

  CrossingTable() = default;
  // `rows` rows of zeros.
  explicit CrossingTable(std::size_t rows) : rows_(rows) {}
  // Rows as listed; missing values are zero.
  CrossingTable(std::initializer_list<std::initializer_list<double>> rows) : rows_(rows.size()) {
    std::size_t i = 0;
    for (const auto& row : rows) (*this)[i++] = row;
  }

  std::size_t size() const { return rows_.size(); }
  CrossingRow operator[](std::size_t i) { return CrossingRow(rows_[i].value); }
  ConstCrossingRow operator[](std::size_t i) const { return ConstCrossingRow(rows_[i].value); }
  // The first value of row i; row i + 1 follows kWidth values on.
  double* Row(std::size_t i) { return rows_[i].value; }
  const double* Row(std::size_t i) const { return rows_[i].value; }

  // Every row back to zeros.
  void Clear() { std::fill(rows_.begin(), rows_.end(), Line{}); }
  // `rows` rows of zeros, replacing what was there.
  void Reset(std::size_t rows) { rows_.assign(rows, Line{}); }

  bool operator==(const CrossingTable& other) const {
    if (size() != other.size()) return false;
    for (std::size_t i = 0; i < size(); ++i)
      if ((*this)[i] != other[i]) return false;
    return true;
  }

 private:
  struct alignas(64) Line {
    double value[kWidth] = {0, 0, 0, 0, 0, 0, 0, 0};
  };
  std::vector<Line> rows_;
};
