#include "SqlTestCatalog.h"

#include <algorithm>

std::vector<std::string> RowsInOrder(const SqlRows& rows) {
    std::vector<std::string> out;
    for (const SqlRow& row : rows.m_rows) {
        std::string text;
        for (size_t i = 0; i < row.size(); ++i)
            text += (i == 0 ? "" : "|") + row[i].ToString();
        out.push_back(text);
    }
    return out;
}

std::vector<std::string> SortedRows(const SqlRows& rows) {
    std::vector<std::string> out = RowsInOrder(rows);
    std::sort(out.begin(), out.end());
    return out;
}
