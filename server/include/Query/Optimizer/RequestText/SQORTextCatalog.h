#pragma once
// The catalog text format: a repository (databases with their target type and features,
// connection pools, tables, columns, keys, complex joins) together with the session
// properties and compatibility flags a request is optimized under (docs/text-format.md).
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Repository.h"
#include "Platform/ZKString.h"
#include "Query/Optimizer/RequestText/SQORTextLexer.h"

struct RqCatalog {
    struct Setting {
        ZKString m_name;
        ZKString m_value;     // as written: text, or an integer's digits
        bool m_bInt = false;  // for properties: set as an integer property
    };
    std::shared_ptr<RpRepository> m_pRepository = std::make_shared<RpRepository>();
    std::vector<Setting> m_sessionProperties;  // in file order
    std::vector<Setting> m_sessionFlags;       // compatibility flags of the session
    std::vector<Setting> m_serverFlags;        // compatibility flags of the whole server

    // A session over the repository with the session properties and flags set. Raises
    // ErrorMessage for a flag the catalogue does not know or a value of the wrong kind.
    std::unique_ptr<RpSession> MakeSession() const;
    // Sets the server-wide flags (SUCompatFlag); they stay until SUCompatFlag::Reset.
    void ApplyServerFlags() const;
};

class RqCatalogText {
public:
    // Throws RqTextError, naming `fileName` and the position, on malformed input and on
    // names the repository refuses (duplicates, unknown tables in keys and joins, ...).
    static RqCatalog Read(std::string_view text, const std::string& fileName);
    // Canonical text: objects in repository order, so reading it back gives the same
    // identifiers. The text nests pools and tables in their database and columns and keys
    // in their table, so that holds when each kind of object was added parent by parent
    // (always so for a catalog that was read, and for one built a parent at a time).
    static std::string Write(const RqCatalog& catalog);
};
