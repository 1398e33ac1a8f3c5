// Text form of repository identifiers.

#include "Platform/VoidID.h"

#include <limits>

#include "Platform/SystemUtility.h"

ZKString VoidID::ToString() const {
    if (IsNullID()) {
        return ZKString(L"null");
    }
    return ZKString(std::to_wstring(m_nTypeId) + L":" + std::to_wstring(m_nNum));
}

bool VoidID::FromString(std::wstring_view text, VoidID& id) {
    text = BaseStringUtil::Trim(text);
    if (text == L"null") {
        id = NullID;
        return true;
    }
    const std::size_t colon = text.find(L':');
    if (colon == std::wstring_view::npos) {
        return false;
    }
    long long typeId = 0;
    long long num = 0;
    const std::wstring_view typeText = text.substr(0, colon);
    const std::wstring_view numText = text.substr(colon + 1);
    // Blanks around the parts would make two texts for one identifier.
    if (typeText != BaseStringUtil::Trim(typeText) || numText != BaseStringUtil::Trim(numText) ||
        numText.starts_with(L'-') || numText.starts_with(L'+')) {
        return false;
    }
    if (!BaseStringUtil::IntFrom(typeText, typeId) || !BaseStringUtil::IntFrom(numText, num)) {
        return false;
    }
    if (typeId < std::numeric_limits<int32_t>::min() ||
        typeId > std::numeric_limits<int32_t>::max() ||
        num > static_cast<long long>(std::numeric_limits<uint32_t>::max())) {
        return false;
    }
    id = VoidID(static_cast<int32_t>(typeId), static_cast<uint32_t>(num));
    return true;
}
