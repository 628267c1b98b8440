#include "lab/read_ahead.h"

#include <algorithm>

namespace lab {
namespace {

// A slot that once held a large value does not keep its memory for small ones.
constexpr size_t k_kept_capacity = 65536;

} // namespace

void read_ahead::clear() {
  free_.insert(free_.end(), order_.begin(), order_.end());
  order_.clear();
  at_end_ = false;
  bytes_ = 0;
  current = k_none;
}

void read_ahead::start(std::string_view low) {
  clear();
  low_ = low;
}

uint16_t read_ahead::fill_slot(std::string_view key, std::string_view value) {
  if (free_.empty()) {
    free_.reserve(k_capacity + 1);
    order_.reserve(k_capacity + 1);
    slots_.emplace_back();
    free_.push_back(static_cast<uint16_t>(slots_.size() - 1));
  }
  const uint16_t slot = free_.back();
  record &held = slots_[slot];
  if (held.value.capacity() > k_kept_capacity) {
    held = record();
  }
  held.key = key;
  held.value = value;
  free_.pop_back();
  bytes_ += key.size() + value.size();
  return slot;
}

bool read_ahead::append(std::string_view key, std::string_view value) {
  order_.push_back(fill_slot(key, value));
  return size() < k_capacity && bytes_ < k_byte_limit;
}

size_t read_ahead::lower_bound(std::string_view key) const {
  size_t low = 0;
  size_t high = size();
  if (near_ < high) {
    const bool after = at(near_).key < key;
    low = after ? near_ + 1 : low;
    high = after ? high : near_;
  }
  if (low < high && at(low).key < key) {
    const auto begin = order_.begin();
    const auto found = std::lower_bound(
        begin + static_cast<ptrdiff_t>(low) + 1, begin + static_cast<ptrdiff_t>(high), key,
        [this](uint16_t slot, std::string_view k) { return slots_[slot].key < k; });
    low = static_cast<size_t>(found - begin);
  }
  near_ = low;
  return low;
}

size_t read_ahead::upper_bound(std::string_view key) const {
  const size_t index = lower_bound(key);
  return index < size() && at(index).key == key ? index + 1 : index;
}

void read_ahead::insert(size_t index, std::string_view key, std::string_view value) {
  order_.insert(order_.begin() + static_cast<ptrdiff_t>(index), fill_slot(key, value));
  if (current != k_none && index <= current) {
    ++current;
  }
}

void read_ahead::remove(size_t index) {
  bytes_ -= at(index).key.size() + at(index).value.size();
  free_.push_back(order_[index]);
  order_.erase(order_.begin() + static_cast<ptrdiff_t>(index));
  if (current == index) {
    current = k_none;
  } else if (current != k_none && index < current) {
    --current;
  }
}

void read_ahead::stored(std::string_view key, std::string_view value) {
  if (!covers(key)) {
    return;
  }
  const size_t index = lower_bound(key);
  if (index == size()) {
    if (!at_end_) {
      return;
    }
  } else if (at(index).key == key) {
    record &held = slots_[order_[index]];
    bytes_ += value.size() - held.value.size();
    held.value = value;
    return;
  }
  insert(index, key, value);
  while (size() > 1 && (size() > k_capacity || bytes_ > 2 * k_byte_limit)) {
    remove(size() - 1);
    at_end_ = false;
  }
}

void read_ahead::erased(std::string_view key) {
  if (!covers(key)) {
    return;
  }
  const size_t index = lower_bound(key);
  if (index == size() || at(index).key != key) {
    return;
  }
  remove(index);
  if (order_.empty()) {
    clear(); // nothing left to say how far the run goes
  }
}

} // namespace lab
