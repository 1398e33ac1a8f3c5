#include "Query/Optimizer/RequestText/SQORTextSuggest.h"

#include <algorithm>

#include "Platform/ServerInfo.h"
#include "Platform/ZKString.h"

namespace {

char Lower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

size_t EditDistanceNoCase(std::string_view a, std::string_view b) {
    // Three rows of the dynamic-programming table: the transposition looks two rows back.
    const size_t n = b.size();
    std::vector<size_t> before(n + 1), previous(n + 1), current(n + 1);
    for (size_t j = 0; j <= n; ++j)
        previous[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        current[0] = i;
        for (size_t j = 1; j <= n; ++j) {
            const size_t cost = Lower(a[i - 1]) == Lower(b[j - 1]) ? 0 : 1;
            current[j] = std::min({previous[j] + 1, current[j - 1] + 1, previous[j - 1] + cost});
            if (i > 1 && j > 1 && Lower(a[i - 1]) == Lower(b[j - 2]) &&
                Lower(a[i - 2]) == Lower(b[j - 1]))
                current[j] = std::min(current[j], before[j - 2] + 1);
        }
        std::swap(before, previous);
        std::swap(previous, current);
    }
    return previous[n];
}

std::string ClosestName(std::string_view name, const std::vector<std::string>& candidates) {
    // Short names allow one slip: two edits would turn most short names into any other.
    const size_t limit = name.size() < 4 ? 1 : std::max<size_t>(2, name.size() / 3);
    const std::string* best = nullptr;
    size_t bestDistance = limit + 1;
    for (const std::string& candidate : candidates) {
        const size_t distance = EditDistanceNoCase(name, candidate);
        if (distance < bestDistance) {
            best = &candidate;
            bestDistance = distance;
        }
    }
    return best != nullptr ? *best : std::string();
}

std::string DidYouMean(std::string_view name, const std::vector<std::string>& candidates) {
    const std::string closest = ClosestName(name, candidates);
    return closest.empty() ? std::string() : " (did you mean '" + closest + "'?)";
}

std::vector<std::string> TargetTypeNames() {
    std::vector<std::string> names;
    for (int value = 0; value < 256; ++value) {
        if (const wchar_t* name =
                ServerInfo::TargetTypeName(static_cast<ServerInfo::TargetType>(value)))
            names.push_back(ZKToUtf8(name));
    }
    return names;
}
