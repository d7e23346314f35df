// "Did you mean": the known word closest to a mistyped one.
#pragma once

#include <string>
#include <vector>

// The candidate within two edits (insertions, deletions, substitutions or
// swaps of neighbours) of `word`, the closest first; empty when none is.
std::string ClosestWord(const std::string& word, const std::vector<std::string>& candidates);
