#pragma once
// The sample catalog (examples/sales.catalog) compiled into the tool, so that rqopt runs
// with no files at all. The source is generated from the file at build time.

#include <string_view>

std::string_view RqoptBuiltinCatalog();
// The name errors in the built-in catalog are reported under.
inline constexpr const char* kRqoptBuiltinCatalogName = "<built-in sales.catalog>";
