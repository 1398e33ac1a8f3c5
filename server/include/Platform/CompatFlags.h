#pragma once
// Compatibility flags switch individual rewrites (or variants of them) on and off, so that
// a change of plan can be undone in the field without a new build. The catalogue is the
// single list of flags: lookups, validation and listing all read it.
//
// A flag's value is resolved in layers: the session's own value (session-scope flags
// only), else the server-wide value, else the catalogue default. Reading a flag that is
// not in the catalogue, or reading it as the wrong kind, is a programming error.

#include <string_view>
#include <vector>

#include "Platform/RepositoryFwd.h"
#include "Platform/ZKString.h"

struct CompatFlagInfo {
    const wchar_t* m_name;
    bool m_bIsInt;        // integer flag; otherwise boolean (0 or 1)
    bool m_bServerScope;  // only the whole server can set it
    int m_default;
    const wchar_t* m_description;
};

class CompatFlagCatalog {
public:
    // Letter case of the name does not matter; nullptr when there is no such flag.
    static const CompatFlagInfo* Find(std::wstring_view name);
    // All flags in catalogue order.
    static const std::vector<CompatFlagInfo>& All();
};

// A flag as seen by a request. rp may be null, meaning no session values.
class SOCompatFlag {
public:
    static bool GetBool(const ZKString& name, ARpGateway* rp);
    static int GetInt(const ZKString& name, ARpGateway* rp);
};

// Server-wide values, shared by every session; thread-safe.
class SUCompatFlag {
public:
    static bool GetBool(const ZKString& name);
    static int GetInt(const ZKString& name);
    static void SetBool(const ZKString& name, bool value);
    static void SetInt(const ZKString& name, int value);
    // Back to the catalogue defaults.
    static void Reset();
};
