// The in-memory repository, the session gateway and the lookup helpers built on them.

#include "Platform/Repository.h"

#include <pthread.h>

#include <bitset>
#include <mutex>
#include <utility>

#include "Platform/CompatFlags.h"
#include "Platform/ErrorMessage.h"

namespace {

class RpDatabaseObj;
class RpConnectionPoolObj;
class RpTableObj;
class RpColumnObj;
class RpKeyObj;
class RpComplexJoinObj;

// A reader-writer lock that lets a waiting writer in ahead of new readers. The default
// lock prefers readers, so a repository still being built while requests read it steadily
// could make the builder wait indefinitely. Read paths never nest their locks, which this
// lock requires.
class WriterPreferringLock {
public:
    WriterPreferringLock() {
        pthread_rwlockattr_t attr;
        pthread_rwlockattr_init(&attr);
        pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        const int rc = pthread_rwlock_init(&m_lock, &attr);
        pthread_rwlockattr_destroy(&attr);
        ZK_ASSERT(rc == 0);
    }
    ~WriterPreferringLock() { pthread_rwlock_destroy(&m_lock); }
    WriterPreferringLock(const WriterPreferringLock&) = delete;
    WriterPreferringLock& operator=(const WriterPreferringLock&) = delete;

    void lock() { ZK_ASSERT(pthread_rwlock_wrlock(&m_lock) == 0); }
    void unlock() { pthread_rwlock_unlock(&m_lock); }
    void lock_shared() { ZK_ASSERT(pthread_rwlock_rdlock(&m_lock) == 0); }
    void unlock_shared() { pthread_rwlock_unlock(&m_lock); }

private:
    pthread_rwlock_t m_lock;
};

}  // namespace

// Owns every object of one repository. Refs share ownership of the core (aliasing the
// object they point to), so objects outlive the RpRepository as long as they are referred
// to. All mutable state (the lists that grow while building) is guarded by m_mutex.
struct RpRepositoryCore : std::enable_shared_from_this<RpRepositoryCore> {
    mutable WriterPreferringLock m_mutex;
    std::vector<std::unique_ptr<RpDatabaseObj>> m_databases;
    std::vector<std::unique_ptr<RpConnectionPoolObj>> m_pools;
    std::vector<std::unique_ptr<RpTableObj>> m_tables;
    std::vector<std::unique_ptr<RpColumnObj>> m_columns;
    std::vector<std::unique_ptr<RpKeyObj>> m_keys;
    std::vector<std::unique_ptr<RpComplexJoinObj>> m_joins;
    std::map<ZKString, RpDatabaseObj*, std::less<>> m_databasesByName;
    // Keyed by the two table numbers, lower first, so that either order finds the join.
    std::map<std::pair<uint32_t, uint32_t>, RpComplexJoinObj*> m_joinsByTables;

    template <class I>
    Ref<I> MakeRef(const I* object) const {
        if (object == nullptr) {
            return Ref<I>();
        }
        return Ref<I>(std::shared_ptr<const I>(shared_from_this(), object));
    }

    // Objects of kind T numbered 1, 2, ... in insertion order; the number indexes the list.
    template <class T>
    static T* ByNumber(const std::vector<std::unique_ptr<T>>& objects, const VoidID& id,
                       RpObjectType type) {
        if (id.GetTypeID() != type || id.GetNum() == 0 || id.GetNum() > objects.size()) {
            return nullptr;
        }
        return objects[id.GetNum() - 1].get();
    }
};

namespace {

using SharedLock = std::shared_lock<WriterPreferringLock>;
using UniqueLock = std::unique_lock<WriterPreferringLock>;
using SessionSharedLock = std::shared_lock<std::shared_mutex>;
using SessionUniqueLock = std::unique_lock<std::shared_mutex>;

template <class I, class T>
std::vector<Ref<I>> RefsOf(const RpRepositoryCore& core, const std::vector<T*>& objects) {
    std::vector<Ref<I>> refs;
    refs.reserve(objects.size());
    for (const T* object : objects) {
        refs.push_back(core.MakeRef<I>(object));
    }
    return refs;
}

template <class T>
std::vector<VoidID> IDsOf(const std::vector<T*>& objects) {
    std::vector<VoidID> ids;
    ids.reserve(objects.size());
    for (const T* object : objects) {
        ids.push_back(object->GetID());
    }
    return ids;
}

class RpDatabaseObj final : public ADatabase {
public:
    RpDatabaseObj(RpRepositoryCore* core, VoidID id, ZKString name, ServerInfo::TargetType type,
                  std::set<SUFeaturesTable::FeatureId> features)
        : m_pCore(core),
          m_id(id),
          m_name(std::move(name)),
          m_type(type),
          m_features(std::move(features)) {
        for (const SUFeaturesTable::FeatureId f : m_features) {
            m_featureBits.set(static_cast<std::size_t>(f));
        }
    }

    VoidID GetID() const override { return m_id; }
    const ZKString& GetName() const override { return m_name; }
    ServerInfo::TargetType GetTargetType() const override { return m_type; }
    bool HasFeature(SUFeaturesTable::FeatureId feature) const override {
        return static_cast<int>(feature) >= 0 && feature < SUFeaturesTable::kFeatureCount &&
               m_featureBits.test(static_cast<std::size_t>(feature));
    }
    const std::set<SUFeaturesTable::FeatureId>& GetFeatures() const override { return m_features; }
    std::vector<RefAConnectionPool> GetConnectionPools() const override {
        SharedLock lock(m_pCore->m_mutex);
        return RefsOf<AConnectionPool>(*m_pCore, m_pools);
    }
    std::vector<RefATable> GetTables() const override {
        SharedLock lock(m_pCore->m_mutex);
        return RefsOf<ATable>(*m_pCore, m_tables);
    }

    RpRepositoryCore* m_pCore;
    VoidID m_id;
    ZKString m_name;
    ServerInfo::TargetType m_type;
    std::set<SUFeaturesTable::FeatureId> m_features;
    std::bitset<SUFeaturesTable::kFeatureCount> m_featureBits;
    // Guarded by the core's mutex.
    std::vector<RpConnectionPoolObj*> m_pools;
    std::vector<RpTableObj*> m_tables;
    std::map<ZKString, RpConnectionPoolObj*, std::less<>> m_poolsByName;
    std::map<std::pair<ZKString, ZKString>, RpTableObj*> m_tablesByName;
};

class RpConnectionPoolObj final : public AConnectionPool {
public:
    RpConnectionPoolObj(RpRepositoryCore* core, VoidID id, ZKString name, RpDatabaseObj* db)
        : m_pCore(core), m_id(id), m_name(std::move(name)), m_pDatabase(db) {}

    VoidID GetID() const override { return m_id; }
    const ZKString& GetName() const override { return m_name; }
    RefADatabase GetDatabase() const override { return m_pCore->MakeRef<ADatabase>(m_pDatabase); }

    RpRepositoryCore* m_pCore;
    VoidID m_id;
    ZKString m_name;
    RpDatabaseObj* m_pDatabase;
};

class RpTableObj final : public ATable {
public:
    RpTableObj(RpRepositoryCore* core, VoidID id, ZKString schema, ZKString name, RpDatabaseObj* db)
        : m_pCore(core),
          m_id(id),
          m_schema(std::move(schema)),
          m_name(std::move(name)),
          m_pDatabase(db) {}

    VoidID GetID() const override { return m_id; }
    const ZKString& GetName() const override { return m_name; }
    RefADatabase GetDatabase() const override { return m_pCore->MakeRef<ADatabase>(m_pDatabase); }
    const ZKString& GetSchema() const override { return m_schema; }
    std::vector<RefAColumn> GetColumns() const override {
        SharedLock lock(m_pCore->m_mutex);
        return RefsOf<AColumn>(*m_pCore, m_columns);
    }
    RefAColumn FindColumn(std::wstring_view name) const override;
    std::vector<RefAKey> GetKeys() const override {
        SharedLock lock(m_pCore->m_mutex);
        return RefsOf<AKey>(*m_pCore, m_keys);
    }
    bool HasKey() const override {
        SharedLock lock(m_pCore->m_mutex);
        return !m_keys.empty();
    }

    RpRepositoryCore* m_pCore;
    VoidID m_id;
    ZKString m_schema;
    ZKString m_name;
    RpDatabaseObj* m_pDatabase;
    // Guarded by the core's mutex.
    std::vector<RpColumnObj*> m_columns;
    std::map<ZKString, RpColumnObj*, std::less<>> m_columnsByName;
    std::vector<RpKeyObj*> m_keys;
    std::vector<RpComplexJoinObj*> m_joins;
};

class RpColumnObj final : public AColumn {
public:
    RpColumnObj(RpRepositoryCore* core, VoidID id, ZKString name, RpTableObj* table, int kind,
                ZKString dataType)
        : m_pCore(core),
          m_id(id),
          m_name(std::move(name)),
          m_pTable(table),
          m_nKind(kind),
          m_dataType(std::move(dataType)) {}

    VoidID GetID() const override { return m_id; }
    const ZKString& GetName() const override { return m_name; }
    RefATable GetTable() const override { return m_pCore->MakeRef<ATable>(m_pTable); }
    int GetKind() const override { return m_nKind; }
    const ZKString& GetDataType() const override { return m_dataType; }

    RpRepositoryCore* m_pCore;
    VoidID m_id;
    ZKString m_name;
    RpTableObj* m_pTable;
    int m_nKind;
    ZKString m_dataType;
};

RefAColumn RpTableObj::FindColumn(std::wstring_view name) const {
    SharedLock lock(m_pCore->m_mutex);
    const auto it = m_columnsByName.find(name);
    return it == m_columnsByName.end() ? RefAColumn() : m_pCore->MakeRef<AColumn>(it->second);
}

class RpKeyObj final : public AKey {
public:
    RpKeyObj(RpRepositoryCore* core, VoidID id, ZKString name, RpTableObj* table,
             std::vector<RpColumnObj*> columns)
        : m_pCore(core),
          m_id(id),
          m_name(std::move(name)),
          m_pTable(table),
          m_columns(std::move(columns)) {}

    VoidID GetID() const override { return m_id; }
    const ZKString& GetName() const override { return m_name; }
    RefATable GetTable() const override { return m_pCore->MakeRef<ATable>(m_pTable); }
    std::vector<RefAColumn> GetColumns() const override {
        return RefsOf<AColumn>(*m_pCore, m_columns);
    }

    RpRepositoryCore* m_pCore;
    VoidID m_id;
    ZKString m_name;
    RpTableObj* m_pTable;
    const std::vector<RpColumnObj*> m_columns;  // fixed when the key is made
};

class RpComplexJoinObj final : public AComplexJoin {
public:
    RpComplexJoinObj(RpRepositoryCore* core, VoidID id, ZKString name, RpTableObj* first,
                     RpTableObj* second, JoinCardinality cardinality)
        : m_pCore(core),
          m_id(id),
          m_name(std::move(name)),
          m_pFirst(first),
          m_pSecond(second),
          m_cardinality(cardinality) {}

    VoidID GetID() const override { return m_id; }
    const ZKString& GetName() const override { return m_name; }
    std::vector<RefATable> GetTables() const override {
        return {m_pCore->MakeRef<ATable>(m_pFirst), m_pCore->MakeRef<ATable>(m_pSecond)};
    }
    JoinCardinality GetCardinality() const override { return m_cardinality; }

    RpRepositoryCore* m_pCore;
    VoidID m_id;
    ZKString m_name;
    RpTableObj* m_pFirst;
    RpTableObj* m_pSecond;
    JoinCardinality m_cardinality;
};

// The implementation object behind a reference handed to a builder method. A reference
// into another repository would link objects across stores: a caller's mistake.
template <class T, class I>
T* Own(const RpRepositoryCore* core, const Ref<I>& ref) {
    ZK_ASSERT(!ref.IsNull());
    const T* object = dynamic_cast<const T*>(ref.Get());
    ZK_ASSERT(object != nullptr && object->m_pCore == core);
    return const_cast<T*>(object);
}

void RequireName(const ZKString& name, const wchar_t* what) {
    if (name.empty()) {
        ZK_THROW(ErrorMessage(kErr_InvalidRepositoryDefinition,
                              ZKString(L"a ") + what + L" needs a name"));
    }
}

ZKString Described(const wchar_t* kind, std::wstring_view name) {
    return ZKString(kind) + L" " + MetadataUtil::QuoteIdentifier(name);
}

ZKString TableDisplayName(std::wstring_view schema, std::wstring_view name) {
    if (schema.empty()) {
        return MetadataUtil::QuoteIdentifier(name);
    }
    return MetadataUtil::QuoteIdentifier(schema) + L"." + MetadataUtil::QuoteIdentifier(name);
}

}  // namespace

// ---------------------------------------------------------------------------------------
// AComplexJoin

JoinCardinality AComplexJoin::Reverse(JoinCardinality cardinality) {
    switch (cardinality) {
        case k_One_To_ZeroOrOne:
            return k_ZeroOrOne_To_One;
        case k_ZeroOrOne_To_One:
            return k_One_To_ZeroOrOne;
        case k_One_To_Many:
            return k_Many_To_One;
        case k_Many_To_One:
            return k_One_To_Many;
        case k_ZeroOrOne_To_Many:
            return k_Many_To_ZeroOrOne;
        case k_Many_To_ZeroOrOne:
            return k_ZeroOrOne_To_Many;
        case kUnknownCardinality:
        case k_One_To_One:
        case k_ZeroOrOne_To_ZeroOrOne:
        case k_Many_To_Many:
            break;
    }
    return cardinality;
}

JoinCardinality AComplexJoin::GetCardinalityFrom(const VoidID& tableID) const {
    const std::vector<RefATable> tables = GetTables();
    ZK_ASSERT(tables.size() == 2);
    if (tables[0]->GetID() == tableID) {
        return GetCardinality();
    }
    if (tables[1]->GetID() == tableID) {
        return Reverse(GetCardinality());
    }
    return kUnknownCardinality;
}

// ---------------------------------------------------------------------------------------
// RpRepository: building

RpRepository::RpRepository() : m_pCore(std::make_shared<RpRepositoryCore>()) {}

RpRepository::~RpRepository() = default;

RefADatabase RpRepository::AddDatabase(const ZKString& name, ServerInfo::TargetType type) {
    return AddDatabase(name, type, SUFeaturesTable::DefaultsFor(type));
}

RefADatabase RpRepository::AddDatabase(const ZKString& name, ServerInfo::TargetType type,
                                       const std::set<SUFeaturesTable::FeatureId>& features) {
    RequireName(name, L"database");
    for (const SUFeaturesTable::FeatureId f : features) {
        ZK_ASSERT(static_cast<int>(f) >= 0 && f < SUFeaturesTable::kFeatureCount);
    }
    UniqueLock lock(m_pCore->m_mutex);
    RpRepositoryCore& core = *m_pCore;
    if (core.m_databasesByName.count(name) != 0) {
        ZK_THROW(ErrorMessage(kErr_DuplicateRepositoryName, L"database",
                              MetadataUtil::QuoteIdentifier(name), L"the repository"));
    }
    const VoidID id(kRpType_Database, static_cast<uint32_t>(core.m_databases.size() + 1));
    core.m_databases.push_back(std::make_unique<RpDatabaseObj>(&core, id, name, type, features));
    RpDatabaseObj* db = core.m_databases.back().get();
    core.m_databasesByName.emplace(name, db);
    return core.MakeRef<ADatabase>(db);
}

RefAConnectionPool RpRepository::AddConnectionPool(const RefADatabase& dbRef,
                                                   const ZKString& name) {
    RpDatabaseObj* db = Own<RpDatabaseObj>(m_pCore.get(), dbRef);
    RequireName(name, L"connection pool");
    UniqueLock lock(m_pCore->m_mutex);
    RpRepositoryCore& core = *m_pCore;
    if (db->m_poolsByName.count(name) != 0) {
        ZK_THROW(ErrorMessage(kErr_DuplicateRepositoryName, L"connection pool",
                              MetadataUtil::QuoteIdentifier(name),
                              Described(L"database", db->m_name)));
    }
    const VoidID id(kRpType_ConnectionPool, static_cast<uint32_t>(core.m_pools.size() + 1));
    core.m_pools.push_back(std::make_unique<RpConnectionPoolObj>(&core, id, name, db));
    RpConnectionPoolObj* pool = core.m_pools.back().get();
    db->m_pools.push_back(pool);
    db->m_poolsByName.emplace(name, pool);
    return core.MakeRef<AConnectionPool>(pool);
}

RefATable RpRepository::AddTable(const RefADatabase& dbRef, const ZKString& schema,
                                 const ZKString& name) {
    RpDatabaseObj* db = Own<RpDatabaseObj>(m_pCore.get(), dbRef);
    RequireName(name, L"table");
    UniqueLock lock(m_pCore->m_mutex);
    RpRepositoryCore& core = *m_pCore;
    const std::pair<ZKString, ZKString> key(schema, name);
    if (db->m_tablesByName.count(key) != 0) {
        ZK_THROW(ErrorMessage(kErr_DuplicateRepositoryName, L"table",
                              TableDisplayName(schema, name), Described(L"database", db->m_name)));
    }
    const VoidID id(kRpType_Table, static_cast<uint32_t>(core.m_tables.size() + 1));
    core.m_tables.push_back(std::make_unique<RpTableObj>(&core, id, schema, name, db));
    RpTableObj* table = core.m_tables.back().get();
    db->m_tables.push_back(table);
    db->m_tablesByName.emplace(key, table);
    return core.MakeRef<ATable>(table);
}

RefAColumn RpRepository::AddColumn(const RefATable& tableRef, const ZKString& name, int kind,
                                   const ZKString& dataType) {
    RpTableObj* table = Own<RpTableObj>(m_pCore.get(), tableRef);
    RequireName(name, L"column");
    UniqueLock lock(m_pCore->m_mutex);
    RpRepositoryCore& core = *m_pCore;
    if (table->m_columnsByName.count(name) != 0) {
        ZK_THROW(ErrorMessage(kErr_DuplicateRepositoryName, L"column",
                              MetadataUtil::QuoteIdentifier(name),
                              L"table " + TableDisplayName(table->m_schema, table->m_name)));
    }
    const VoidID id(kRpType_Column, static_cast<uint32_t>(core.m_columns.size() + 1));
    core.m_columns.push_back(std::make_unique<RpColumnObj>(&core, id, name, table, kind, dataType));
    RpColumnObj* column = core.m_columns.back().get();
    table->m_columns.push_back(column);
    table->m_columnsByName.emplace(name, column);
    return core.MakeRef<AColumn>(column);
}

RefAKey RpRepository::AddKey(const RefATable& tableRef, const ZKString& name,
                             const std::vector<RefAColumn>& columnRefs) {
    RpTableObj* table = Own<RpTableObj>(m_pCore.get(), tableRef);
    RequireName(name, L"key");
    const ZKString tableText = L"table " + TableDisplayName(table->m_schema, table->m_name);
    if (columnRefs.empty()) {
        ZK_THROW(ErrorMessage(kErr_InvalidRepositoryDefinition,
                              L"the key " + MetadataUtil::QuoteIdentifier(name) + L" of " +
                                  tableText + L" has no columns"));
    }
    std::vector<RpColumnObj*> columns;
    for (const RefAColumn& columnRef : columnRefs) {
        RpColumnObj* column = Own<RpColumnObj>(m_pCore.get(), columnRef);
        if (column->m_pTable != table) {
            ZK_THROW(ErrorMessage(kErr_InvalidRepositoryDefinition,
                                  L"the key " + MetadataUtil::QuoteIdentifier(name) + L" of " +
                                      tableText + L" names the column " +
                                      MetadataUtil::QuoteIdentifier(column->m_name) +
                                      L" of another table"));
        }
        for (const RpColumnObj* seen : columns) {
            if (seen == column) {
                ZK_THROW(ErrorMessage(kErr_InvalidRepositoryDefinition,
                                      L"the key " + MetadataUtil::QuoteIdentifier(name) + L" of " +
                                          tableText + L" names the column " +
                                          MetadataUtil::QuoteIdentifier(column->m_name) +
                                          L" twice"));
            }
        }
        columns.push_back(column);
    }
    UniqueLock lock(m_pCore->m_mutex);
    RpRepositoryCore& core = *m_pCore;
    for (const RpKeyObj* existing : table->m_keys) {
        if (existing->m_name == name) {
            ZK_THROW(ErrorMessage(kErr_DuplicateRepositoryName, L"key",
                                  MetadataUtil::QuoteIdentifier(name), tableText));
        }
    }
    const VoidID id(kRpType_Key, static_cast<uint32_t>(core.m_keys.size() + 1));
    core.m_keys.push_back(std::make_unique<RpKeyObj>(&core, id, name, table, std::move(columns)));
    RpKeyObj* key = core.m_keys.back().get();
    table->m_keys.push_back(key);
    return core.MakeRef<AKey>(key);
}

RefAComplexJoin RpRepository::AddComplexJoin(const RefATable& firstRef, const RefATable& secondRef,
                                             JoinCardinality cardinality, const ZKString& name) {
    RpTableObj* first = Own<RpTableObj>(m_pCore.get(), firstRef);
    RpTableObj* second = Own<RpTableObj>(m_pCore.get(), secondRef);
    ZK_ASSERT(static_cast<int>(cardinality) >= kUnknownCardinality &&
              cardinality <= k_Many_To_ZeroOrOne);
    const ZKString joinName = name.empty() ? ZKString(first->m_name + L"_" + second->m_name) : name;
    UniqueLock lock(m_pCore->m_mutex);
    RpRepositoryCore& core = *m_pCore;
    const uint32_t a = first->m_id.GetNum();
    const uint32_t b = second->m_id.GetNum();
    const std::pair<uint32_t, uint32_t> pairKey(std::min(a, b), std::max(a, b));
    if (core.m_joinsByTables.count(pairKey) != 0) {
        ZK_THROW(ErrorMessage(kErr_InvalidRepositoryDefinition,
                              L"the tables " + TableDisplayName(first->m_schema, first->m_name) +
                                  L" and " + TableDisplayName(second->m_schema, second->m_name) +
                                  L" already have a complex join"));
    }
    const VoidID id(kRpType_ComplexJoin, static_cast<uint32_t>(core.m_joins.size() + 1));
    core.m_joins.push_back(
        std::make_unique<RpComplexJoinObj>(&core, id, joinName, first, second, cardinality));
    RpComplexJoinObj* join = core.m_joins.back().get();
    core.m_joinsByTables.emplace(pairKey, join);
    first->m_joins.push_back(join);
    if (second != first) {
        second->m_joins.push_back(join);
    }
    return core.MakeRef<AComplexJoin>(join);
}

// ---------------------------------------------------------------------------------------
// RpRepository: reading

RefADatabase RpRepository::FindDatabase(const VoidID& id) const {
    SharedLock lock(m_pCore->m_mutex);
    return m_pCore->MakeRef<ADatabase>(
        RpRepositoryCore::ByNumber(m_pCore->m_databases, id, kRpType_Database));
}

RefAConnectionPool RpRepository::FindConnectionPool(const VoidID& id) const {
    SharedLock lock(m_pCore->m_mutex);
    return m_pCore->MakeRef<AConnectionPool>(
        RpRepositoryCore::ByNumber(m_pCore->m_pools, id, kRpType_ConnectionPool));
}

RefATable RpRepository::FindTable(const VoidID& id) const {
    SharedLock lock(m_pCore->m_mutex);
    return m_pCore->MakeRef<ATable>(
        RpRepositoryCore::ByNumber(m_pCore->m_tables, id, kRpType_Table));
}

RefAColumn RpRepository::FindColumn(const VoidID& id) const {
    SharedLock lock(m_pCore->m_mutex);
    return m_pCore->MakeRef<AColumn>(
        RpRepositoryCore::ByNumber(m_pCore->m_columns, id, kRpType_Column));
}

RefAKey RpRepository::FindKey(const VoidID& id) const {
    SharedLock lock(m_pCore->m_mutex);
    return m_pCore->MakeRef<AKey>(RpRepositoryCore::ByNumber(m_pCore->m_keys, id, kRpType_Key));
}

RefAComplexJoin RpRepository::FindComplexJoin(const VoidID& id) const {
    SharedLock lock(m_pCore->m_mutex);
    return m_pCore->MakeRef<AComplexJoin>(
        RpRepositoryCore::ByNumber(m_pCore->m_joins, id, kRpType_ComplexJoin));
}

RefARepositoryObject RpRepository::FindObject(const VoidID& id) const {
    switch (id.GetTypeID()) {
        case kRpType_Database:
            return FindDatabase(id);
        case kRpType_ConnectionPool:
            return FindConnectionPool(id);
        case kRpType_Table:
            return FindTable(id);
        case kRpType_Column:
            return FindColumn(id);
        case kRpType_Key:
            return FindKey(id);
        case kRpType_ComplexJoin:
            return FindComplexJoin(id);
        default:
            return RefARepositoryObject();
    }
}

RefADatabase RpRepository::FindDatabaseByName(std::wstring_view name) const {
    SharedLock lock(m_pCore->m_mutex);
    const auto it = m_pCore->m_databasesByName.find(name);
    return it == m_pCore->m_databasesByName.end() ? RefADatabase()
                                                  : m_pCore->MakeRef<ADatabase>(it->second);
}

RefAConnectionPool RpRepository::FindConnectionPoolByName(const RefADatabase& dbRef,
                                                          std::wstring_view name) const {
    if (dbRef.IsNull()) {
        return RefAConnectionPool();
    }
    const RpDatabaseObj* db = Own<RpDatabaseObj>(m_pCore.get(), dbRef);
    SharedLock lock(m_pCore->m_mutex);
    const auto it = db->m_poolsByName.find(name);
    return it == db->m_poolsByName.end() ? RefAConnectionPool()
                                         : m_pCore->MakeRef<AConnectionPool>(it->second);
}

RefATable RpRepository::FindTableByName(const RefADatabase& dbRef, std::wstring_view schema,
                                        std::wstring_view name) const {
    if (dbRef.IsNull()) {
        return RefATable();
    }
    const RpDatabaseObj* db = Own<RpDatabaseObj>(m_pCore.get(), dbRef);
    SharedLock lock(m_pCore->m_mutex);
    const auto it = db->m_tablesByName.find(std::make_pair(ZKString(schema), ZKString(name)));
    return it == db->m_tablesByName.end() ? RefATable() : m_pCore->MakeRef<ATable>(it->second);
}

RefAComplexJoin RpRepository::FindComplexJoinBetween(const VoidID& table1,
                                                     const VoidID& table2) const {
    if (table1.GetTypeID() != kRpType_Table || table2.GetTypeID() != kRpType_Table) {
        return RefAComplexJoin();
    }
    const uint32_t a = table1.GetNum();
    const uint32_t b = table2.GetNum();
    SharedLock lock(m_pCore->m_mutex);
    const auto it = m_pCore->m_joinsByTables.find(std::make_pair(std::min(a, b), std::max(a, b)));
    return it == m_pCore->m_joinsByTables.end() ? RefAComplexJoin()
                                                : m_pCore->MakeRef<AComplexJoin>(it->second);
}

std::vector<RefADatabase> RpRepository::GetDatabases() const {
    SharedLock lock(m_pCore->m_mutex);
    std::vector<RefADatabase> refs;
    refs.reserve(m_pCore->m_databases.size());
    for (const std::unique_ptr<RpDatabaseObj>& db : m_pCore->m_databases) {
        refs.push_back(m_pCore->MakeRef<ADatabase>(db.get()));
    }
    return refs;
}

std::vector<RefAComplexJoin> RpRepository::GetComplexJoins() const {
    SharedLock lock(m_pCore->m_mutex);
    std::vector<RefAComplexJoin> refs;
    refs.reserve(m_pCore->m_joins.size());
    for (const std::unique_ptr<RpComplexJoinObj>& join : m_pCore->m_joins) {
        refs.push_back(m_pCore->MakeRef<AComplexJoin>(join.get()));
    }
    return refs;
}

std::vector<VoidID> RpRepository::GetRelatedIDs(const VoidID& owner, RelationKind kind) const {
    const RpRepositoryCore& core = *m_pCore;
    SharedLock lock(core.m_mutex);
    switch (kind) {
        case kRel_DatabaseConnectionPools:
        case kRel_DatabaseTables: {
            ZK_ASSERT(owner.GetTypeID() == kRpType_Database);
            const RpDatabaseObj* db =
                RpRepositoryCore::ByNumber(core.m_databases, owner, kRpType_Database);
            if (db == nullptr) {
                return {};
            }
            return kind == kRel_DatabaseTables ? IDsOf(db->m_tables) : IDsOf(db->m_pools);
        }
        case kRel_TableColumns:
        case kRel_TableKeys:
        case kRel_TableComplexJoins: {
            ZK_ASSERT(owner.GetTypeID() == kRpType_Table);
            const RpTableObj* table =
                RpRepositoryCore::ByNumber(core.m_tables, owner, kRpType_Table);
            if (table == nullptr) {
                return {};
            }
            if (kind == kRel_TableColumns) {
                return IDsOf(table->m_columns);
            }
            return kind == kRel_TableKeys ? IDsOf(table->m_keys) : IDsOf(table->m_joins);
        }
        case kRel_KeyColumns: {
            ZK_ASSERT(owner.GetTypeID() == kRpType_Key);
            const RpKeyObj* key = RpRepositoryCore::ByNumber(core.m_keys, owner, kRpType_Key);
            return key == nullptr ? std::vector<VoidID>() : IDsOf(key->m_columns);
        }
        case kRel_ComplexJoinTables: {
            ZK_ASSERT(owner.GetTypeID() == kRpType_ComplexJoin);
            const RpComplexJoinObj* join =
                RpRepositoryCore::ByNumber(core.m_joins, owner, kRpType_ComplexJoin);
            if (join == nullptr) {
                return {};
            }
            return {join->m_pFirst->m_id, join->m_pSecond->m_id};
        }
    }
    ZK_LOGIC_ERROR(L"unhandled repository relation");
}

// ---------------------------------------------------------------------------------------
// RpSession

RpSession::RpSession(std::shared_ptr<const RpRepository> repository)
    : m_pRepository(std::move(repository)) {
    ZK_ASSERT(m_pRepository != nullptr);
}

void RpSession::SetStringSessionProperty(const ZKString& name, const ZKString& value) {
    SessionUniqueLock lock(m_mutex);
    m_properties.insert_or_assign(name, PropertyValue(value));
}

void RpSession::SetIntegerSessionProperty(const ZKString& name, long long value) {
    SessionUniqueLock lock(m_mutex);
    m_properties.insert_or_assign(name, PropertyValue(value));
}

bool RpSession::RemoveSessionProperty(const ZKString& name) {
    SessionUniqueLock lock(m_mutex);
    return m_properties.erase(name) != 0;
}

bool RpSession::GetStringSessionProperty(const ZKString& name, ZKString& value) const {
    SessionSharedLock lock(m_mutex);
    const auto it = m_properties.find(name);
    if (it == m_properties.end()) {
        return false;
    }
    value = it->second.GetText();
    return true;
}

bool RpSession::GetIntegerSessionProperty(const ZKString& name, long long& value) const {
    SessionSharedLock lock(m_mutex);
    const auto it = m_properties.find(name);
    return it != m_properties.end() && it->second.ToIntegerValue(value);
}

void RpSession::StoreCompatFlag(const ZKString& name, bool bIsInt, int value) {
    const CompatFlagInfo* info = CompatFlagCatalog::Find(name);
    if (info == nullptr) {
        ZK_THROW(ErrorMessage(kErr_UnknownCompatFlag, name));
    }
    if (info->m_bServerScope) {
        ZK_THROW(ErrorMessage(kErr_ServerCompatFlagInSession, info->m_name));
    }
    // An integer for a boolean flag is accepted when it is 0 or 1, as a user would type it.
    const bool fits = info->m_bIsInt ? bIsInt : (!bIsInt || value == 0 || value == 1);
    if (!fits) {
        ZK_THROW(ErrorMessage(
            kErr_BadCompatFlagValue, info->m_name,
            bIsInt ? ZKString::FromInt(value) : ZKString(value != 0 ? L"true" : L"false")));
    }
    SessionUniqueLock lock(m_mutex);
    m_compatFlags.insert_or_assign(ZKString(info->m_name), value);
}

void RpSession::SetCompatFlag(const ZKString& name, bool value) {
    StoreCompatFlag(name, false, value ? 1 : 0);
}

void RpSession::SetCompatFlag(const ZKString& name, int value) {
    StoreCompatFlag(name, true, value);
}

void RpSession::SetCompatFlagFromText(const ZKString& name, std::wstring_view text) {
    const CompatFlagInfo* info = CompatFlagCatalog::Find(name);
    if (info == nullptr) {
        ZK_THROW(ErrorMessage(kErr_UnknownCompatFlag, name));
    }
    if (info->m_bIsInt) {
        long long value = 0;
        if (!BaseStringUtil::IntFrom(text, value) || value < INT32_MIN || value > INT32_MAX) {
            ZK_THROW(ErrorMessage(kErr_BadCompatFlagValue, info->m_name, ZKString(text)));
        }
        StoreCompatFlag(name, true, static_cast<int>(value));
        return;
    }
    bool value = false;
    if (!BaseStringUtil::BooleanFrom(text, value)) {
        ZK_THROW(ErrorMessage(kErr_BadCompatFlagValue, info->m_name, ZKString(text)));
    }
    StoreCompatFlag(name, false, value ? 1 : 0);
}

void RpSession::ClearCompatFlag(const ZKString& name) {
    const CompatFlagInfo* info = CompatFlagCatalog::Find(name);
    if (info == nullptr) {
        return;
    }
    SessionUniqueLock lock(m_mutex);
    m_compatFlags.erase(ZKString(info->m_name));
}

void RpSession::ClearCompatFlags() {
    SessionUniqueLock lock(m_mutex);
    m_compatFlags.clear();
}

bool RpSession::GetCompatFlagOverride(std::wstring_view name, int& value) const {
    const CompatFlagInfo* info = CompatFlagCatalog::Find(name);
    if (info == nullptr) {
        return false;
    }
    SessionSharedLock lock(m_mutex);
    const auto it = m_compatFlags.find(std::wstring_view(info->m_name));
    if (it == m_compatFlags.end()) {
        return false;
    }
    value = it->second;
    return true;
}

const RpRepository& RpSession::GetRepository() const {
    return *m_pRepository;
}

RefADatabase RpSession::GetDatabaseByTargetID(const VoidID& targetID) const {
    if (targetID.GetTypeID() == kRpType_Database) {
        return m_pRepository->FindDatabase(targetID);
    }
    if (targetID.GetTypeID() == kRpType_ConnectionPool) {
        const RefAConnectionPool pool = m_pRepository->FindConnectionPool(targetID);
        return pool.IsNull() ? RefADatabase() : pool->GetDatabase();
    }
    return RefADatabase();
}

// ---------------------------------------------------------------------------------------
// Helpers

RefADatabase RefHelper::GetDatabase(const ARpGateway* rp, const VoidID& id) {
    ZK_ASSERT(rp != nullptr);
    return rp->GetRepository().FindDatabase(id);
}

RefAConnectionPool RefHelper::GetConnectionPool(const ARpGateway* rp, const VoidID& id) {
    ZK_ASSERT(rp != nullptr);
    return rp->GetRepository().FindConnectionPool(id);
}

RefATable RefHelper::GetTable(const ARpGateway* rp, const VoidID& id) {
    ZK_ASSERT(rp != nullptr);
    return rp->GetRepository().FindTable(id);
}

RefAColumn RefHelper::GetColumn(const ARpGateway* rp, const VoidID& id) {
    ZK_ASSERT(rp != nullptr);
    return rp->GetRepository().FindColumn(id);
}

RefAKey RefHelper::GetKey(const ARpGateway* rp, const VoidID& id) {
    ZK_ASSERT(rp != nullptr);
    return rp->GetRepository().FindKey(id);
}

RefAComplexJoin RefHelper::GetComplexJoin(const ARpGateway* rp, const VoidID& id) {
    ZK_ASSERT(rp != nullptr);
    return rp->GetRepository().FindComplexJoin(id);
}

VoidRelIter::VoidRelIter(const RpRepository& repository, const VoidID& owner,
                         RpRepository::RelationKind kind)
    : m_ids(repository.GetRelatedIDs(owner, kind)) {}

namespace {

const RpRepository& RepositoryOf(const ARpGateway* rp) {
    ZK_ASSERT(rp != nullptr);
    return rp->GetRepository();
}

}  // namespace

VoidRelIter::VoidRelIter(const ARpGateway* rp, const VoidID& owner, RpRepository::RelationKind kind)
    : VoidRelIter(RepositoryOf(rp), owner, kind) {}

ZKString MetadataUtil::QuoteIdentifier(std::wstring_view name) {
    ZKString quoted;
    quoted.reserve(name.size() + 2);
    quoted.push_back(L'"');
    for (const wchar_t c : name) {
        quoted.push_back(c);
        if (c == L'"') {
            quoted.push_back(L'"');
        }
    }
    quoted.push_back(L'"');
    return quoted;
}

ZKString MetadataUtil::GenerateQualifiedName(const RefATable& table) {
    ZK_ASSERT(!table.IsNull());
    const RefADatabase db = table->GetDatabase();
    ZKString name = QuoteIdentifier(db->GetName());
    if (!table->GetSchema().empty()) {
        name += L".";
        name += QuoteIdentifier(table->GetSchema());
    }
    name += L".";
    name += QuoteIdentifier(table->GetName());
    return name;
}

RefAConnectionPool Authorization::ConnectionPoolFrom_UserDatabase(ARpGateway* rp,
                                                                  const RefADatabase& db) {
    if (db.IsNull()) {
        return RefAConnectionPool();
    }
    ZKString poolName;
    if (rp != nullptr &&
        rp->GetStringSessionProperty(L"CONNECTION_POOL." + db->GetName(), poolName)) {
        // A pool the user named but the database lacks is not replaced by another one: the
        // request would silently run with other credentials.
        for (const RefAConnectionPool& pool : db->GetConnectionPools()) {
            if (pool->GetName() == poolName) {
                return pool;
            }
        }
        return RefAConnectionPool();
    }
    const std::vector<RefAConnectionPool> pools = db->GetConnectionPools();
    return pools.empty() ? RefAConnectionPool() : pools.front();
}
