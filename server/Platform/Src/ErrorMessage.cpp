// The message catalogue and the formatting of user-facing errors.

#include "Platform/ErrorMessage.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <iterator>

namespace {

struct CatalogueEntry {
    unsigned long m_number;
    const wchar_t* m_text;
};

// The one table of message texts; keep it sorted by number.
constexpr CatalogueEntry kCatalogue[] = {
    {kErr_JobCancelled, L"The request was cancelled before it completed."},
    {kErr_StackExhausted, L"The request is nested too deeply to be processed."},
    {kErr_InternalError, L"Internal error: %1."},
    {kErr_UnknownCompatFlag, L"There is no compatibility flag named %1."},
    {kErr_ServerCompatFlagInSession,
     L"The compatibility flag %1 applies to the whole server and cannot be set for one "
     L"session."},
    {kErr_BadCompatFlagValue, L"The value %2 is not valid for the compatibility flag %1."},
    {kErr_PropertyNotInteger, L"The value '%1' is not an integer."},
    {kErr_DuplicateRepositoryName, L"There already is a %1 named %2 in %3."},
    {kErr_RepositoryObjectNotFound, L"The repository has no object %1."},
    {kErr_InvalidRepositoryDefinition, L"Invalid repository definition: %1."},
    {kErr_TableWithoutPrimaryKey,
     L"The physical table %1 feeds an object-framework data source but has no primary key. "
     L"Define a key for it in the repository."},
    {kErr_UnknownRewriteRule, L"There is no rewrite rule named %1."},
    {kErr_UnknownTargetType, L"There is no target type named %1."},
    {kErr_UnknownFeature, L"There is no database feature named %1."},
};

constexpr bool CatalogueIsSorted() {
    for (std::size_t i = 1; i < std::size(kCatalogue); ++i) {
        if (kCatalogue[i - 1].m_number >= kCatalogue[i].m_number) {
            return false;
        }
    }
    return true;
}
static_assert(CatalogueIsSorted(), "the catalogue must be sorted by number, without duplicates");

std::deque<ErrorMessage>& ThreadRecord() {
    thread_local std::deque<ErrorMessage> record;
    return record;
}

}  // namespace

ErrorMessage::ErrorMessage(const ZKString& text) : m_nNumber(0), m_text(text) {
    ComposeWhat();
}

const wchar_t* ErrorMessage::CatalogueText(unsigned long number) {
    const auto it = std::lower_bound(
        std::begin(kCatalogue), std::end(kCatalogue), number,
        [](const CatalogueEntry& entry, unsigned long n) { return entry.m_number < n; });
    if (it == std::end(kCatalogue) || it->m_number != number) {
        return nullptr;
    }
    return it->m_text;
}

ZKString ErrorMessage::GetText() const {
    if (m_nNumber == 0) {
        return m_text;
    }
    const wchar_t* pattern = CatalogueText(m_nNumber);
    if (pattern == nullptr) {
        // Still show everything the raising code supplied, so the error is not lost.
        ZKString text = L"Message " + std::to_wstring(m_nNumber) + L" is not in the catalogue.";
        if (!m_args.empty()) {
            text += L" Arguments:";
            for (std::size_t i = 0; i < m_args.size(); ++i) {
                text += i == 0 ? L" '" : L", '";
                text += m_args[i];
                text += L"'";
            }
            text += L".";
        }
        return text;
    }
    ZKString text;
    const std::wstring_view p(pattern);
    for (std::size_t i = 0; i < p.size(); ++i) {
        if (p[i] != L'%' || i + 1 >= p.size()) {
            text.push_back(p[i]);
            continue;
        }
        if (p[i + 1] == L'%') {
            text.push_back(L'%');
            ++i;
            continue;
        }
        std::size_t j = i + 1;
        std::size_t index = 0;
        while (j < p.size() && p[j] >= L'0' && p[j] <= L'9' && index < 1000) {
            index = index * 10 + static_cast<std::size_t>(p[j] - L'0');
            ++j;
        }
        if (j == i + 1 || index == 0 || index > m_args.size()) {
            // Not a placeholder, or one the raising code gave no argument for: keep it
            // visible rather than silently dropping it.
            text.append(p.substr(i, j - i));
        } else {
            text += m_args[index - 1];
        }
        i = j - 1;
    }
    return text;
}

void ErrorMessage::ComposeWhat() {
    const std::string text = GetText().ToUtf8();
    if (m_nNumber == 0) {
        m_what = text;
        return;
    }
    char prefix[32];
    std::snprintf(prefix, sizeof(prefix), "[%05lu] ", m_nNumber);
    m_what = prefix + text;
}

void ErrorMessage::prethrowProcess(const ErrorMessage& e, bool log, const wchar_t* file, int line) {
    e.m_pFile = file;
    e.m_nLine = line;
    e.m_bPrethrown = true;
    if (log) {
        std::deque<ErrorMessage>& record = ThreadRecord();
        record.push_back(e);
        while (record.size() > kPrethrownHistory) {
            record.pop_front();
        }
    }
}

std::vector<ErrorMessage> ErrorMessage::LastPrethrown() {
    const std::deque<ErrorMessage>& record = ThreadRecord();
    return std::vector<ErrorMessage>(record.begin(), record.end());
}

void ErrorMessage::ClearLastPrethrown() {
    ThreadRecord().clear();
}
