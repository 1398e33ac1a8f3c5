#pragma once
// Forward declarations of the repository types, for headers that only pass them along.

template <class T>
class Ref;

class ADatabase;
class AConnectionPool;
class ATable;
class AColumn;
class AKey;
class AComplexJoin;
class ARpGateway;
class RpRepository;

using RefADatabase = Ref<ADatabase>;
using RefAConnectionPool = Ref<AConnectionPool>;
using RefATable = Ref<ATable>;
using RefAColumn = Ref<AColumn>;
using RefAKey = Ref<AKey>;
using RefAComplexJoin = Ref<AComplexJoin>;
