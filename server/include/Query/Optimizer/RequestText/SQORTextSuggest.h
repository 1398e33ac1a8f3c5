#pragma once
// Suggestions for misspelt names (rules, options and flags on the command line; kinds,
// target types, tables and columns in a request): the known name nearest to what was
// typed, when it is near enough to be a likely typo.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Edit distance ignoring ASCII letter case, counting an exchange of two neighbouring
// characters as one edit (the commonest typing slip).
size_t EditDistanceNoCase(std::string_view a, std::string_view b);

// The candidate nearest to `name`, or empty when none is within a third of the name's
// length (at least two edits; one for names shorter than four characters). Ties go to the
// earlier candidate.
std::string ClosestName(std::string_view name, const std::vector<std::string>& candidates);

// " (did you mean 'X'?)" for the closest candidate, or empty.
std::string DidYouMean(std::string_view name, const std::vector<std::string>& candidates);

// The names of the target types (ServerInfo), the candidates when one is misspelt.
std::vector<std::string> TargetTypeNames();
