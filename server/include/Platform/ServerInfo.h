#pragma once
// Kinds of data source a request can be sent to. The numeric values are stored in the
// repository, so they never change; a value may have more than one enumerator when a
// source was renamed.

#include <string_view>

class ServerInfo {
public:
    enum TargetType : int {
        kBuiltInExecutionEngine = 0,  // our own engine: the data is already in the server
        kUnknown = 1,
        kOdbcGeneric = 2,             // any database reached through a generic driver
        kAnsiSql = 3,                 // a database speaking plain standard SQL
        kRowStoreDatabase = 4,        // a general-purpose relational database
        kColumnStoreDatabase = 5,     // a relational database with columnar tables
        kMppWarehouse = 6,            // a massively parallel warehouse
        kEmbeddedSql = 7,             // an in-process SQL library
        kInternalRawDataStorage = 9,  // plain storage with no query capability of its own
        kCubeMdxServer = 33,          // cube servers, queried in a multidimensional language
        kCubeAnalysisServer = 34,
        kCubeMemberServer = 41,
        kFennick = 47,    // an analytic appliance
        kCorvelEAI = 56,  // an enterprise application integration source
        kCubeSemanticServer = 58,
        kFennickNext = 59,
        kCubeXmlaServer = 60,     // cube server whose aggregates determine a break
        kColumnarAppliance = 76,  // columnar appliance that keeps break filters locally
        kCubeXmlaServerNext = 77,
    };

    // Every target but the built-in engine and the unknown one is a data source of its
    // own, including plain storage.
    static bool IsRemoteTargetType(TargetType type);
    static bool IsTargetTypeMDXBased(TargetType type);
    static bool IsPureStorageServerType(TargetType type);
    // Our short name of a target type, or nullptr for a value that has none.
    static const wchar_t* TargetTypeName(TargetType type);
    // Accepts a short name (in any letter case) or the decimal value of a named type.
    static bool TargetTypeFromName(std::wstring_view name, TargetType& out);
};
