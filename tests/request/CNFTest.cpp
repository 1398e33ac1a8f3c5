// Conversion of conditions to conjunctive normal form. Besides exact shapes for small cases,
// random conditions are converted and both forms are evaluated under every assignment of
// true, false and unknown to their predicates: the conversion claims equivalence under SQL's
// three-valued logic, so it must hold there, not only for two values.

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <random>
#include <set>
#include <string>

#include "Query/Optimizer/Request/SQORRqBuilder.h"
#include "Query/Optimizer/Request/SQORRqUtility.h"
#include "Query/Optimizer/Request/SQORToCNF.h"

using namespace rqb;

namespace {

std::string U(const RqNode* node) {
    return ToString(node).ToUtf8();
}

RqExprCond* AsCond(RqExpr* expr) {
    return static_cast<RqExprCond*>(expr);
}

// Predicates over columns of table 1 compared with 0.
RqExprCond* P(const wchar_t* column) {
    return Eq(Col(column, 1), Int(0));
}

std::vector<std::string> Texts(const std::vector<RqExprCond*>& conds) {
    std::vector<std::string> out;
    for (const RqExprCond* cond : conds)
        out.push_back(U(cond));
    return out;
}

std::vector<std::string> Convert(RqExpr* cond, bool bFlattenNot, size_t maxConjuncts = SIZE_MAX) {
    Heap<RqExpr> owner(cond);
    ToCNF cnf(AsCond(cond), bFlattenNot, true, maxConjuncts);
    cnf.GenerateCNF();
    EXPECT_TRUE(cnf.GetConversionSuccess());
    std::vector<RqExprCond*> conjuncts;
    cnf.GetConjuncts(conjuncts);
    return Texts(conjuncts);
}

// ---- Three-valued evaluation ------------------------------------------------------------------

enum Truth { kFalse = 0, kUnknown = 1, kTrue = 2 };
using Assignment = std::map<std::string, int>;

// The variable a predicate reads and whether it reads it negated: x = 0 and x <> 0 read the
// same variable, as do x < 0 and x >= 0, and x > 0 and x <= 0.
std::pair<std::string, bool> Variable(const RqExpr& pred) {
    const std::string column = pred.GetNumOperands() > 0 ? U(pred.GetIthOperand(0)) : "?";
    switch (pred.GetObjectType()) {
        case kRqExprCondEquality:
            return {column + "=", false};
        case kRqExprCondNotEqual:
            return {column + "=", true};
        case kRqExprCondLess:
            return {column + "<", false};
        case kRqExprCondGreaterEqual:
            return {column + "<", true};
        case kRqExprCondGreater:
            return {column + ">", false};
        case kRqExprCondLessEqual:
            return {column + ">", true};
        default:
            return {U(&pred), false};
    }
}

int Evaluate(const RqExpr* expr, const Assignment& values) {
    switch (expr->GetObjectType()) {
        case kRqExprCondAnd: {
            int value = kTrue;
            for (int i = 0; i < expr->GetNumOperands(); ++i)
                value = std::min(value, Evaluate(expr->GetIthOperand(i), values));
            return value;
        }
        case kRqExprCondOr: {
            int value = kFalse;
            for (int i = 0; i < expr->GetNumOperands(); ++i)
                value = std::max(value, Evaluate(expr->GetIthOperand(i), values));
            return value;
        }
        case kRqExprCondNot:
            return kTrue - Evaluate(expr->GetIthOperand(0), values);
        default: {
            const auto [name, bNegated] = Variable(*expr);
            const int value = values.at(name);
            return bNegated ? kTrue - value : value;
        }
    }
}

void CollectVariables(const RqExpr* expr, std::set<std::string>& out) {
    const RqNodeType_e kind = expr->GetObjectType();
    if (kind == kRqExprCondAnd || kind == kRqExprCondOr || kind == kRqExprCondNot) {
        for (int i = 0; i < expr->GetNumOperands(); ++i)
            CollectVariables(expr->GetIthOperand(i), out);
        return;
    }
    out.insert(Variable(*expr).first);
}

// Calls `check` with every assignment of the three truth values to the variables.
template <class F>
void ForEachAssignment(const std::set<std::string>& variables, F check) {
    size_t count = 1;
    for (size_t i = 0; i < variables.size(); ++i)
        count *= 3;
    for (size_t code = 0; code < count; ++code) {
        Assignment values;
        size_t rest = code;
        for (const std::string& name : variables) {
            values[name] = static_cast<int>(rest % 3);
            rest /= 3;
        }
        check(values);
    }
}

// A literal of the CNF: no AND or OR inside; when NOT was flattened, a NOT only over a
// predicate that has no opposite comparison.
bool IsLiteral(const RqExpr* expr, bool bFlattenNot) {
    const RqNodeType_e kind = expr->GetObjectType();
    if (kind == kRqExprCondAnd || kind == kRqExprCondOr)
        return false;
    if (kind != kRqExprCondNot || !bFlattenNot)
        return true;
    const RqNodeType_e inner = expr->GetIthOperand(0)->GetObjectType();
    return inner == kRqExprCondIsNull || inner == kRqExprCondLike;
}

// A random condition over a small set of predicates, with AND, OR and NOT up to `depth`.
RqExpr* RandomCond(std::mt19937& random, int depth) {
    const wchar_t* const columns[] = {L"a", L"b", L"c", L"d"};
    RqExprCond* (*const ordering[])(RqExpr*, RqExpr*) = {Lt, Ge, Gt, Le};
    switch (random() % (depth == 0 ? 4 : 10)) {
        case 0:
            return Eq(Col(columns[random() % 4], 1), Int(0));
        case 1:
            return Ne(Col(columns[random() % 4], 1), Int(0));
        case 2:
            return ordering[random() % 4](Col(L"a", 1), Int(0));
        case 3:
            return IsNull(Col(L"b", 1));
        case 4:
        case 5:
            return And(RandomCond(random, depth - 1), RandomCond(random, depth - 1));
        case 6:
        case 7:
            return Or(RandomCond(random, depth - 1), RandomCond(random, depth - 1));
        default:
            return Not(RandomCond(random, depth - 1));
    }
}

}  // namespace

// ---- Shapes -----------------------------------------------------------------------------------

TEST(CNFTest, DistributesOrOverAndLeftConjunctVaryingSlowest) {
    EXPECT_EQ(Convert(Or(And(P(L"a"), P(L"b")), And(P(L"c"), P(L"d"))), true),
              (std::vector<std::string>{"T1.a = 0 OR T1.c = 0", "T1.a = 0 OR T1.d = 0",
                                        "T1.b = 0 OR T1.c = 0", "T1.b = 0 OR T1.d = 0"}));
    // Already in CNF: the conjuncts are the top-level operands, in order.
    EXPECT_EQ(Convert(And(And(P(L"a"), Or(P(L"b"), P(L"c"))), P(L"d")), true),
              (std::vector<std::string>{"T1.a = 0", "T1.b = 0 OR T1.c = 0", "T1.d = 0"}));
    EXPECT_EQ(Convert(P(L"a"), false), (std::vector<std::string>{"T1.a = 0"}));
}

TEST(CNFTest, RepeatedLiteralsAndConjunctsAreMerged) {
    EXPECT_EQ(Convert(And(And(P(L"a"), P(L"b")), P(L"a")), true),
              (std::vector<std::string>{"T1.a = 0", "T1.b = 0"}));
    EXPECT_EQ(Convert(Or(Or(P(L"a"), P(L"b")), P(L"a")), true),
              (std::vector<std::string>{"T1.a = 0 OR T1.b = 0"}));
    EXPECT_EQ(Convert(And(Or(P(L"a"), P(L"b")), Or(P(L"b"), P(L"a"))), true),
              (std::vector<std::string>{"T1.a = 0 OR T1.b = 0"}));
    // Literals are compared after NOT is flattened: NOT (a <> 0) is a = 0.
    EXPECT_EQ(Convert(And(Not(Ne(Col(L"a", 1), Int(0))), P(L"a")), true),
              (std::vector<std::string>{"T1.a = 0"}));
    // Only repetitions go: absorption is not applied.
    EXPECT_EQ(Convert(Or(And(P(L"a"), P(L"b")), And(P(L"a"), P(L"b"))), true),
              (std::vector<std::string>{"T1.a = 0", "T1.a = 0 OR T1.b = 0", "T1.b = 0"}));
}

TEST(CNFTest, RandomConditionsKeepTheirMeaningUnderThreeValuedLogic) {
    std::mt19937 random(20240229);
    for (int round = 0; round < 300; ++round) {
        Heap<RqExpr> cond(RandomCond(random, 4));
        const std::string before = U(cond.Get());
        for (bool bFlattenNot : {true, false}) {
            SCOPED_TRACE(before + (bFlattenNot ? " (flattened)" : " (NOT kept)"));
            ToCNF cnf(AsCond(cond.Get()), bFlattenNot, true);
            cnf.GenerateCNF();
            ASSERT_TRUE(cnf.GetConversionSuccess());
            std::vector<RqExpr*> conjuncts;
            cnf.GetConjuncts(conjuncts);
            ASSERT_FALSE(conjuncts.empty());

            std::set<std::set<std::string>> seenConjuncts;
            for (const RqExpr* conjunct : conjuncts) {
                std::vector<const RqExpr*> literals;
                ToCNF::HarvestDisjuncts(conjunct, literals);
                std::set<std::string> texts;
                for (const RqExpr* literal : literals) {
                    EXPECT_TRUE(IsLiteral(literal, bFlattenNot)) << U(conjunct);
                    EXPECT_TRUE(texts.insert(U(literal)).second)
                        << "repeated literal in " << U(conjunct);
                }
                EXPECT_TRUE(seenConjuncts.insert(texts).second)
                    << "repeated conjunct " << U(conjunct);
            }

            std::set<std::string> variables;
            CollectVariables(cond.Get(), variables);
            ForEachAssignment(variables, [&](const Assignment& values) {
                int converted = kTrue;
                for (const RqExpr* conjunct : conjuncts)
                    converted = std::min(converted, Evaluate(conjunct, values));
                ASSERT_EQ(Evaluate(cond.Get(), values), converted);
            });
        }
        EXPECT_EQ(U(cond.Get()), before);
    }
}

// ---- Size limits ------------------------------------------------------------------------------

TEST(CNFTest, ALimitStopsTheConversionAndLeavesTheConditionUnconverted) {
    Heap<RqExpr> cond(Or(And(And(P(L"a"), P(L"b")), P(L"c")), And(And(P(L"d"), P(L"e")), P(L"f"))));
    const std::string before = U(cond.Get());
    for (size_t limit : {8, 9}) {
        ToCNF cnf(AsCond(cond.Get()), true, true, limit);
        cnf.GenerateCNF();
        EXPECT_EQ(cnf.GetConversionSuccess(), limit == 9);
        std::vector<RqExpr*> conjuncts;
        cnf.GetConjuncts(conjuncts);
        ASSERT_EQ(conjuncts.size(), limit == 9 ? 9u : 1u);
        if (limit == 8) {
            EXPECT_NE(conjuncts[0], cond.Get());
            EXPECT_EQ(U(conjuncts[0]), before);
        }
    }
    EXPECT_EQ(U(cond.Get()), before);
    // The limit applies to conjunctions too.
    Heap<RqExpr> three(And(And(P(L"a"), P(L"b")), P(L"c")));
    ToCNF conjunction(AsCond(three.Get()), true, true, 2);
    conjunction.GenerateCNF();
    EXPECT_FALSE(conjunction.GetConversionSuccess());

    // A condition taken over comes back as the one conjunct.
    RqExpr* owned = Or(And(P(L"a"), P(L"b")), And(P(L"c"), P(L"d")));
    ToCNF takenOver(AsCond(owned), false, false, 3);
    takenOver.GenerateCNF();
    EXPECT_FALSE(takenOver.GetConversionSuccess());
    std::vector<RqExpr*> conjuncts;
    takenOver.GetConjuncts(conjuncts);
    EXPECT_EQ(conjuncts, std::vector<RqExpr*>{owned});
}

TEST(CNFTest, RepeatedConjunctsAreMergedBeforeTheyCountAgainstTheLimit) {
    // (a AND b) OR (a AND b) distributes into a, a OR b, b: the pair (b, a) repeats (a, b).
    // OR-ing (c AND d) onto that gives 3 x 2 = 6 conjuncts; had the repetition been kept to
    // the next distribution, 4 x 2 = 8 would have been counted against the limit of 6.
    Heap<RqExpr> cond(Or(Or(And(P(L"a"), P(L"b")), And(P(L"a"), P(L"b"))), And(P(L"c"), P(L"d"))));
    ToCNF cnf(AsCond(cond.Get()), true, true, 6);
    cnf.GenerateCNF();
    EXPECT_TRUE(cnf.GetConversionSuccess());
    EXPECT_EQ(cnf.GetNumConjuncts(), 6u);
}

TEST(CNFTest, AnExponentialConversionFailsQuicklyInBoundedMemoryWhateverTheLimit) {
    // An OR of 40 two-predicate ANDs distributes into 2^40 conjuncts.
    RqExpr* cond = And(Eq(Col(L"a", 1), Int(0)), Eq(Col(L"b", 1), Int(0)));
    for (int i = 1; i < 40; ++i)
        cond = Or(cond, And(Eq(Col(L"a", 1), Int(i)), Eq(Col(L"b", 1), Int(i))));
    Heap<RqExpr> owner(cond);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const long peakBefore = usage.ru_maxrss;
    for (size_t limit : {SIZE_MAX, size_t{1} << 50}) {
        const auto start = std::chrono::steady_clock::now();
        ToCNF cnf(AsCond(cond), true, true, limit);
        EXPECT_NO_THROW(cnf.GenerateCNF());
        EXPECT_FALSE(cnf.GetConversionSuccess());
        EXPECT_EQ(cnf.GetNumConjuncts(), 1u);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    }
    getrusage(RUSAGE_SELF, &usage);
    EXPECT_LT(usage.ru_maxrss - peakBefore, 256L * 1024) << "kilobytes of peak growth";
}

// ---- Ownership --------------------------------------------------------------------------------

TEST(CNFTest, ReleasedConjunctsBelongToTheCaller) {
    Heap<RqExpr> cond(And(P(L"a"), Or(P(L"b"), And(P(L"c"), P(L"d")))));
    ToCNF whole(AsCond(cond.Get()), true, true);
    whole.GenerateCNF();
    Heap<RqExpr> conjunction(whole.ReleaseAsCondition());
    EXPECT_EQ(whole.GetNumConjuncts(), 0u);
    EXPECT_EQ(U(conjunction.Get()),
              "T1.a = 0 AND (T1.b = 0 OR T1.c = 0) AND (T1.b = 0 OR T1.d = 0)");
    ToCNFConjuncts conjuncts(AsCond(cond.Get()));
    ASSERT_EQ(conjuncts.GetNumConjuncts(), 3u);
    Heap<RqExprCond> first(conjuncts.ReleaseIthConjunct(0));
    EXPECT_EQ(conjuncts.GetIthConjunct(0), nullptr);
    std::vector<Heap<RqExprCond>> moved;
    conjuncts.ReleaseConjuncts(moved);
    EXPECT_EQ(moved.size(), 2u);
    std::vector<Heap<RqExprCond>> owned;
    EXPECT_FALSE(ToCNFConjuncts::GenerateOwnedCNFConjuncts(AsCond(cond.Get()), owned, true, 1));
    ASSERT_EQ(owned.size(), 1u);
    EXPECT_EQ(U(owned[0].Get()), U(cond.Get()));
}

TEST(CNFTest, NewNodesCarryTheTargetOfWhatTheyReplace) {
    const VoidID db(1, 7);
    const VoidID other(1, 8);
    RqExprCond* compared = Lt(Col(L"a", 1), Int(0));
    compared->MarkTargetType(ServerInfo::kAnsiSql);
    compared->MarkTargetID(other);
    Heap<RqExpr> cond(Not(And(compared, IsNull(Col(L"b", 1)))));
    cond->MarkTargetType(ServerInfo::kMppWarehouse);
    cond->MarkTargetID(db);

    ToCNF cnf(AsCond(cond.Get()), true, true);
    cnf.GenerateCNF();
    std::vector<RqExprCond*> conjuncts;
    cnf.GetConjuncts(conjuncts);
    ASSERT_EQ(Texts(conjuncts), std::vector<std::string>{"T1.a >= 0 OR NOT T1.b IS NULL"});
    EXPECT_EQ(conjuncts[0]->GetTargetType(), ServerInfo::kMppWarehouse);
    EXPECT_EQ(conjuncts[0]->GetTargetID(), db);
    EXPECT_EQ(conjuncts[0]->GetIthOperand(0)->GetTargetID(), other);
    EXPECT_EQ(conjuncts[0]->GetIthOperand(1)->GetTargetType(), ServerInfo::kMppWarehouse);
}

// ---- Harvesting and edge cases ------------------------------------------------------------------

TEST(CNFTest, HarvestingReadsTheTopLevelTreesWithoutCopying) {
    Heap<RqExpr> cond(And(And(Or(P(L"a"), P(L"b")), P(L"c")), Or(P(L"d"), And(P(L"e"), P(L"f")))));
    std::vector<const RqExprCond*> conjuncts;
    ToCNF::HarvestConjuncts(AsCond(cond.Get()), conjuncts);
    ASSERT_EQ(conjuncts.size(), 3u);
    EXPECT_EQ(conjuncts[0], cond->GetIthOperand(0)->GetIthOperand(0));
    std::vector<const RqExprCond*> disjunctive;
    ToCNF::HarvestDisjunctivePredicates(AsCond(cond.Get()), disjunctive);
    EXPECT_EQ(disjunctive, (std::vector<const RqExprCond*>{conjuncts[0], conjuncts[2]}));
    std::vector<const RqExprCond*> disjuncts;
    ToCNF::HarvestDisjuncts(conjuncts[2], disjuncts);
    ASSERT_EQ(disjuncts.size(), 2u);
    EXPECT_EQ(U(disjuncts[1]), "T1.e = 0 AND T1.f = 0");
}

TEST(CNFTest, NullConditionsAndOperandsThatAreNotConditions) {
    ToCNF none(nullptr, true, true);
    none.GenerateCNF();
    EXPECT_TRUE(none.GetConversionSuccess());
    EXPECT_EQ(none.ReleaseAsCondition(), nullptr);

    // A boolean column ANDed with a predicate is a conjunct of its own.
    Heap<RqExpr> cond(Not(RQ_NEW RqExprCondAnd(Col(L"flag", 1), P(L"a"))));
    ToCNF cnf(AsCond(cond.Get()), true, true);
    cnf.GenerateCNF();
    std::vector<RqExpr*> conjuncts;
    cnf.GetConjuncts(conjuncts);
    ASSERT_EQ(conjuncts.size(), 1u);
    EXPECT_EQ(U(conjuncts[0]), "NOT T1.flag OR T1.a <> 0");
}

TEST(CNFTest, LongChainsConvertWithoutRecursion) {
    const int length = 10000;
    RqExpr* ors = Eq(Col(L"a", 1), Int(0));
    RqExpr* ands = Eq(Col(L"a", 1), Int(0));
    for (int i = 1; i < length; ++i) {
        ors = Or(ors, Eq(Col(L"a", 1), Int(i)));
        ands = And(ands, Eq(Col(L"a", 1), Int(i)));
    }
    Heap<RqExpr> orOwner(ors);
    Heap<RqExpr> andOwner(ands);
    ToCNF disjunction(AsCond(ors), true, true);
    disjunction.GenerateCNF();
    std::vector<RqExpr*> conjuncts;
    disjunction.GetConjuncts(conjuncts);
    ASSERT_EQ(conjuncts.size(), 1u);
    std::vector<const RqExpr*> literals;
    ToCNF::HarvestDisjuncts(conjuncts[0], literals);
    EXPECT_EQ(literals.size(), static_cast<size_t>(length));
    ToCNF conjunction(AsCond(ands), true, true);
    conjunction.GenerateCNF();
    EXPECT_EQ(conjunction.GetNumConjuncts(), static_cast<size_t>(length));
}
