#pragma once
// Random requests with a SQL meaning, for fuzzing the rewrite rules against the SQLite check.
//
// Every request the generator makes reads, verifies and renders: blocks over the catalog's
// tables joined on columns of one type, derived tables, set operations and break filters,
// filters, groupings with aggregates, orders with row limits. It writes the request text
// rather than building trees, so that what it makes is exactly what a person would write
// in a file, and a failing request can be saved and reduced as it is.
//
//     RqRequestGenerator generator(session.GetRepository());
//     std::string text = generator.Generate(seed);
//
// The same seed gives the same text for the same catalog and options.

#include <cstdint>
#include <string>
#include <vector>

class RpRepository;

struct RqGenOptions {
    int m_maxDepth = 3;      // nesting of derived tables, set operations and subqueries
    int m_maxFromItems = 3;  // tables, joins and derived tables in one FROM clause
    int m_maxColumns = 4;    // projected columns of a detail block
    int m_maxTables = 4;     // tables (and derived tables) joined in one block
    // Percentages of the shapes the rules act on; the defaults keep every rule busy.
    int m_orderByInDerived = 45;
    int m_outerJoin = 30;
    int m_setOperation = 15;
    int m_breakFilter = 8;
    int m_grouping = 35;
    int m_limit = 20;
};

class RqRequestGenerator {
public:
    RqRequestGenerator(const RpRepository& repository,
                       const RqGenOptions& options = RqGenOptions());
    ~RqRequestGenerator();
    RqRequestGenerator(const RqRequestGenerator&) = delete;
    RqRequestGenerator& operator=(const RqRequestGenerator&) = delete;

    // The text of one request (docs/text-format.md), determined by the seed.
    std::string Generate(uint64_t seed);
    // How many tables of the catalog the generator can read (those with a column of a type
    // it can compare and render).
    size_t GetNumUsableTables() const;

private:
    class Impl;
    Impl* m_pImpl;
};
