#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tez {

// Which reader names belong to which side, as the two sides reported them last; process-wide. A
// name can be on both sides and then counts as local. Any thread may call; each operation holds
// readerListMutex for as long as it touches the lists.

/// Replaces the names of one side by those of a multi-string. Throws std::bad_alloc; the old names
/// then stay.
void setLocalReaderNames(std::string_view multiString);
void setRemoteReaderNames(std::string_view multiString);

/// The daemon has come: the local names are forgotten, and that they were listed, so that the next
/// status-change wait lists the readers again.
void forgetLocalReaderNames() noexcept;
/// The daemon has gone, and its readers with it.
void forgetRemoteReaderNames() noexcept;

/// Notes that the host was asked for the length of its list only: it has readers that it has not
/// named.
void markLocalReaderNamesUntold() noexcept;
/// Whether it is so, and neither its names have been told since nor forgotten.
bool areLocalReaderNamesUntold() noexcept;

/// Tells a listing that the daemon's coming has overtaken from one that is up to date: it is
/// another one from each forgetting of the local names on.
using ReaderListing = std::uint64_t;
ReaderListing currentReaderListing() noexcept;

/// Notes that the readers were listed successfully; without effect for a listing that was begun
/// before the local names were forgotten last.
void markListReadersCalled(ReaderListing listing) noexcept;
bool wasListReadersCalled() noexcept;

enum class ReaderSide { Neither, Local, Remote };

/// The side that each of the readers was reported by, all as of one moment. Names are compared
/// exactly.
std::vector<ReaderSide> findReaderSides(const std::vector<std::string_view>& readers);

/// Copies of the lists, in the order in which the sides reported them.
std::vector<std::string> copyLocalReaderNames();
std::vector<std::string> copyRemoteReaderNames();

}  // namespace tez
