#pragma once

/// @file
/// A second opinion on compound files from outside, before the library that reads them sees them.

#include <cstddef>
#include <cstdint>

/// The format's own bounds, and ours on what a file may cost.
inline constexpr std::size_t kcbMaxStorageFile = std::size_t{1} << 30; ///< bytes
inline constexpr std::uint32_t kcMaxStorageEntries = 16384;            ///< directory entries
inline constexpr int kcMaxStorageDepth = 64;                           ///< storages within storages

/// True if the bytes begin as every compound file does.
bool StorageLooksRight(std::uint8_t const *pb, std::size_t cb);

/// True if every table, chain and directory entry that can be reached lies within the file, ends, and
/// shares no sector with another one. Takes time and memory in proportion to cb, whatever the contents.
bool StorageIsSound(std::uint8_t const *pb, std::size_t cb);
