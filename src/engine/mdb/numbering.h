#pragma once

#include <array>
#include <cstddef>

// How the console numbers the MDB devices' coin types, bill types and tube slots: from 1, where
// MDB numbers coin and bill types from 0. Tables keep index 0 unused so that these numbers index
// them directly.
namespace kestrix::mdb {

inline constexpr int kCoinTypes = 16;
inline constexpr int kBillTypes = 16;
inline constexpr int kTubeSlots = 5;

template <typename T, int Count>
using NumberedFromOne = std::array<T, static_cast<std::size_t>(Count) + 1>;

}  // namespace kestrix::mdb
