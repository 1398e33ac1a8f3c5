// Compatibility flags, database features, target types and the text utilities.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <climits>
#include <map>
#include <unordered_map>

#include "Platform/CompatFlags.h"
#include "Platform/ErrorMessage.h"
#include "Platform/Features.h"
#include "Platform/Repository.h"
#include "Platform/ServerInfo.h"
#include "Platform/SystemUtility.h"

namespace {

class CompatFlagTest : public testing::Test {
protected:
    void TearDown() override { SUCompatFlag::Reset(); }

    std::shared_ptr<RpRepository> m_pRepo = std::make_shared<RpRepository>();
    RpSession m_session{m_pRepo};
};

template <class Fn>
unsigned long ErrorNumberOf(Fn fn) {
    try {
        fn();
    } catch (const ErrorMessage& e) {
        return e.GetNumber();
    }
    return 0;
}

}  // namespace

TEST_F(CompatFlagTest, CatalogueHoldsTheFlagsRulesRelyOn) {
    struct Expected {
        const wchar_t* m_name;
        bool m_bIsInt;
        bool m_bServer;
        int m_default;
    };
    const Expected expected[] = {
        {L"VELD_ENABLE_HASH_GROUP_BY", true, false, 2},
        {L"VELD_ENABLE_SORT_AGGREGATION", false, false, 1},
        {L"VELD_USE_11GSORT", false, true, 0},
        {L"VELD_ENABLE_COUNT_DISTINCT_REWRITE", false, false, 1},
        {L"VELD_ENABLE_AVERAGE_REWRITE", false, false, 1},
        {L"VELD_ENABLE_AGGRESSIVE_FILTER_NORMALIZATION_FOR_COMMONQUERY_FACTORING", false, false, 0},
        {L"VELD_UNIONALL_REWRITE_ENABLED", false, false, 1},
        {L"VELD_MAX_UNION_ALL_CHILDREN", true, false, 0},
        {L"VELD_NEST_UNION_ALL_TO_MAX_CHILDREN", false, false, 0},
        {L"VELD_UNDO_16038091", false, true, 0},
        {L"VELD_DISABLE_DELETEORPHAN_IN_DERIVEDTABLE", false, false, 0},
    };
    for (const Expected& e : expected) {
        const CompatFlagInfo* info = CompatFlagCatalog::Find(e.m_name);
        ASSERT_NE(info, nullptr) << ZKString(e.m_name).ToUtf8();
        EXPECT_EQ(info->m_bIsInt, e.m_bIsInt) << ZKString(e.m_name).ToUtf8();
        EXPECT_EQ(info->m_bServerScope, e.m_bServer) << ZKString(e.m_name).ToUtf8();
        EXPECT_EQ(info->m_default, e.m_default) << ZKString(e.m_name).ToUtf8();
        const int value = e.m_bIsInt ? SOCompatFlag::GetInt(e.m_name, &m_session)
                                     : SOCompatFlag::GetBool(e.m_name, &m_session);
        EXPECT_EQ(value, e.m_default);
    }
    EXPECT_EQ(CompatFlagCatalog::Find(L"veld_enable_hash_group_by"),
              CompatFlagCatalog::Find(L"VELD_ENABLE_HASH_GROUP_BY"));
    EXPECT_EQ(CompatFlagCatalog::Find(L"VELD_NO_SUCH_FLAG"), nullptr);
    std::map<std::wstring, int> seen;
    for (const CompatFlagInfo& info : CompatFlagCatalog::All()) {
        EXPECT_EQ(++seen[info.m_name], 1) << "listed twice";
        EXPECT_TRUE(info.m_bIsInt || info.m_default == 0 || info.m_default == 1);
        EXPECT_NE(std::wstring(info.m_description), L"");
    }
}

TEST_F(CompatFlagTest, SessionValueBeatsServerValueBeatsDefault) {
    const ZKString flag = L"VELD_ENABLE_AVERAGE_REWRITE";
    EXPECT_TRUE(SOCompatFlag::GetBool(flag, &m_session));
    SUCompatFlag::SetBool(flag, false);
    EXPECT_FALSE(SUCompatFlag::GetBool(flag));
    EXPECT_FALSE(SOCompatFlag::GetBool(flag, &m_session));
    EXPECT_FALSE(SOCompatFlag::GetBool(flag, nullptr));
    m_session.SetCompatFlag(L"veld_enable_average_rewrite", true);
    EXPECT_TRUE(SOCompatFlag::GetBool(flag, &m_session));
    RpSession other(m_pRepo);
    EXPECT_FALSE(SOCompatFlag::GetBool(flag, &other));
    m_session.ClearCompatFlag(flag);
    EXPECT_FALSE(SOCompatFlag::GetBool(flag, &m_session));
    SUCompatFlag::Reset();
    EXPECT_TRUE(SOCompatFlag::GetBool(flag, &m_session));

    m_session.SetCompatFlag(L"VELD_MAX_UNION_ALL_CHILDREN", 64);
    EXPECT_EQ(SOCompatFlag::GetInt(L"VELD_MAX_UNION_ALL_CHILDREN", &m_session), 64);
    SUCompatFlag::SetInt(L"VELD_ENABLE_HASH_GROUP_BY", -1);
    EXPECT_EQ(SOCompatFlag::GetInt(L"VELD_ENABLE_HASH_GROUP_BY", &m_session), -1);
    m_session.SetCompatFlagFromText(L"VELD_ENABLE_HASH_GROUP_BY", L" 0 ");
    m_session.SetCompatFlagFromText(L"VELD_ENABLE_SORT_AGGREGATION", L"off");
    EXPECT_EQ(SOCompatFlag::GetInt(L"VELD_ENABLE_HASH_GROUP_BY", &m_session), 0);
    EXPECT_FALSE(SOCompatFlag::GetBool(L"VELD_ENABLE_SORT_AGGREGATION", &m_session));
    m_session.SetCompatFlag(L"VELD_ENABLE_SORT_AGGREGATION", 1);  // 0/1 typed as a number
    EXPECT_TRUE(SOCompatFlag::GetBool(L"VELD_ENABLE_SORT_AGGREGATION", &m_session));
}

TEST_F(CompatFlagTest, ServerFlagsIgnoreSessionsAndBadSessionValuesAreRejected) {
    EXPECT_EQ(ErrorNumberOf([&] { m_session.SetCompatFlag(L"VELD_USE_11GSORT", true); }),
              static_cast<unsigned long>(kErr_ServerCompatFlagInSession));
    SUCompatFlag::SetBool(L"VELD_UNDO_16038091", true);
    EXPECT_TRUE(SOCompatFlag::GetBool(L"VELD_UNDO_16038091", &m_session));
    EXPECT_FALSE(SOCompatFlag::GetBool(L"VELD_USE_11GSORT", &m_session));

    EXPECT_EQ(ErrorNumberOf([&] { m_session.SetCompatFlag(L"VELD_NOPE", true); }),
              static_cast<unsigned long>(kErr_UnknownCompatFlag));
    EXPECT_EQ(ErrorNumberOf([&] { m_session.SetCompatFlag(L"VELD_ENABLE_SORT_AGGREGATION", 2); }),
              static_cast<unsigned long>(kErr_BadCompatFlagValue));
    EXPECT_EQ(ErrorNumberOf([&] { m_session.SetCompatFlag(L"VELD_MAX_UNION_ALL_CHILDREN", true); }),
              static_cast<unsigned long>(kErr_BadCompatFlagValue));
    EXPECT_EQ(ErrorNumberOf([&] {
                  m_session.SetCompatFlagFromText(L"VELD_MAX_UNION_ALL_CHILDREN", L"many");
              }),
              static_cast<unsigned long>(kErr_BadCompatFlagValue));
    EXPECT_EQ(SOCompatFlag::GetInt(L"VELD_MAX_UNION_ALL_CHILDREN", &m_session), 0);
}

TEST_F(CompatFlagTest, ReadingUnknownFlagOrWrongKindIsAProgrammingError) {
    EXPECT_DEATH(SOCompatFlag::GetBool(L"VELD_NO_SUCH_FLAG", &m_session),
                 "ASSERTION FAILED: .*VELD_NO_SUCH_FLAG");
    EXPECT_DEATH(SUCompatFlag::GetBool(L"VELD_NO_SUCH_FLAG"), "ASSERTION FAILED");
    EXPECT_DEATH(SOCompatFlag::GetBool(L"VELD_ENABLE_HASH_GROUP_BY", &m_session),
                 "ASSERTION FAILED");
    EXPECT_DEATH(SOCompatFlag::GetInt(L"VELD_ENABLE_SORT_AGGREGATION", nullptr),
                 "ASSERTION FAILED");
}

TEST(FeaturesTest, NamesRoundTripAndDefaultsFollowTheTargetType) {
    for (int i = 0; i < SUFeaturesTable::kFeatureCount; ++i) {
        const auto f = static_cast<SUFeaturesTable::FeatureId>(i);
        ASSERT_NE(SUFeaturesTable::Name(f), nullptr);
        SUFeaturesTable::FeatureId back = SUFeaturesTable::kFeatureCount;
        ASSERT_TRUE(SUFeaturesTable::FromName(SUFeaturesTable::Name(f), back));
        EXPECT_EQ(back, f);
    }
    EXPECT_EQ(SUFeaturesTable::Name(SUFeaturesTable::kFeatureCount), nullptr);
    SUFeaturesTable::FeatureId f = SUFeaturesTable::kFeatureCount;
    EXPECT_TRUE(SUFeaturesTable::FromName(L"order_by", f));
    EXPECT_EQ(f, SUFeaturesTable::kFeature_OrderBy);
    EXPECT_FALSE(SUFeaturesTable::FromName(L"ORDER BY", f));

    using T = ServerInfo;
    for (const T::TargetType noSql : {T::kUnknown, T::kInternalRawDataStorage, T::kCubeMdxServer,
                                      T::kCubeXmlaServer, T::kCubeXmlaServerNext}) {
        EXPECT_TRUE(SUFeaturesTable::DefaultsFor(noSql).empty()) << noSql;
    }
    const auto engine = SUFeaturesTable::DefaultsFor(T::kBuiltInExecutionEngine);
    EXPECT_TRUE(engine.count(SUFeaturesTable::kFeature_DerivedTables));
    EXPECT_FALSE(engine.count(SUFeaturesTable::kFeaturePerf_NoCommonQueryFactoring));
    EXPECT_TRUE(SUFeaturesTable::DefaultsFor(T::kColumnarAppliance)
                    .count(SUFeaturesTable::kFeaturePerf_InternalBreakfilterHandling));
    EXPECT_TRUE(SUFeaturesTable::DefaultsFor(T::kFennick)
                    .count(SUFeaturesTable::kFeaturePerf_NoCommonQueryFactoring));
}

TEST(FeaturesTest, SupportComesFromTheDatabaseDefinition) {
    auto repo = std::make_shared<RpRepository>();
    const RefADatabase db = repo->AddDatabase(L"D", ServerInfo::kRowStoreDatabase,
                                              {SUFeaturesTable::kFeature_WithClause});
    RpSession session(repo);
    EXPECT_TRUE(
        FeaturesMgr::IsSupportedFeature(db, SUFeaturesTable::kFeature_WithClause, &session));
    EXPECT_FALSE(FeaturesMgr::IsSupportedFeature(db, SUFeaturesTable::kFeature_OrderBy, &session));
    EXPECT_FALSE(FeaturesMgr::IsSupportedFeature(RefADatabase(), SUFeaturesTable::kFeature_OrderBy,
                                                 &session));
    EXPECT_EQ(db->GetFeatures().size(), 1u);
}

TEST(ServerInfoTest, ClassificationAndNamesOfTargetTypes) {
    std::vector<int> mdx;
    int named = 0;
    for (int v = 0; v < 100; ++v) {
        const auto type = static_cast<ServerInfo::TargetType>(v);
        if (ServerInfo::IsTargetTypeMDXBased(type)) {
            mdx.push_back(v);
        }
        EXPECT_EQ(ServerInfo::IsPureStorageServerType(type), v == 9);
        EXPECT_EQ(ServerInfo::IsRemoteTargetType(type), v != 0 && v != 1);
        if (const wchar_t* name = ServerInfo::TargetTypeName(type)) {
            ++named;
            ServerInfo::TargetType back = ServerInfo::kUnknown;
            ASSERT_TRUE(ServerInfo::TargetTypeFromName(name, back)) << v;
            EXPECT_EQ(back, type);
            ASSERT_TRUE(ServerInfo::TargetTypeFromName(std::to_wstring(v), back));
            EXPECT_EQ(back, type);
        }
    }
    EXPECT_EQ(mdx, (std::vector<int>{33, 34, 41, 58, 60, 77}));
    EXPECT_EQ(named, 19);
    EXPECT_STREQ(ServerInfo::TargetTypeName(ServerInfo::kFennick), L"fennick");
    ServerInfo::TargetType t = ServerInfo::kUnknown;
    EXPECT_TRUE(ServerInfo::TargetTypeFromName(L"RawStore", t));
    EXPECT_EQ(t, ServerInfo::kInternalRawDataStorage);
    EXPECT_FALSE(ServerInfo::TargetTypeFromName(L"8", t));
    EXPECT_FALSE(ServerInfo::TargetTypeFromName(L"nosuch", t));
    EXPECT_EQ(ServerInfo::TargetTypeName(static_cast<ServerInfo::TargetType>(8)), nullptr);
}

TEST(StringUtilTest, IntegerAndBooleanParsing) {
    long long v = 0;
    EXPECT_TRUE(BaseStringUtil::IntFrom(L" +42\t", v));
    EXPECT_EQ(v, 42);
    EXPECT_TRUE(BaseStringUtil::IntFrom(L"9223372036854775807", v));
    EXPECT_EQ(v, LLONG_MAX);
    EXPECT_TRUE(BaseStringUtil::IntFrom(L"-9223372036854775808", v));
    EXPECT_EQ(v, LLONG_MIN);
    for (const wchar_t* bad : {L"", L"-", L"+", L"1 2", L"0x10", L"9223372036854775808",
                               L"-9223372036854775809", L"1.0"}) {
        EXPECT_FALSE(BaseStringUtil::IsInteger(bad)) << ZKString(bad).ToUtf8();
    }
    bool b = false;
    EXPECT_TRUE(BaseStringUtil::BooleanFrom(L" YES ", b));
    EXPECT_TRUE(b);
    EXPECT_TRUE(BaseStringUtil::BooleanFrom(L"Off", b));
    EXPECT_FALSE(b);
    EXPECT_FALSE(BaseStringUtil::BooleanFrom(L"2", b));

    EXPECT_EQ(PropertyValue(ZKString(L"-8")).GetInteger(), -8);
    EXPECT_EQ(PropertyValue(123LL).GetText(), ZKString(L"123"));
    EXPECT_EQ(ErrorNumberOf([] { PropertyValue(ZKString(L"x1")).GetInteger(); }),
              static_cast<unsigned long>(kErr_PropertyNotInteger));
    ErrorMessage::ClearLastPrethrown();
}

TEST(ZKStringTest, Utf8RoundTripAndRecoveryFromBadBytes) {
    const ZKString text(L"a\u00e9\u20ac\U0001F600z");
    const std::string utf8 = text.ToUtf8();
    EXPECT_EQ(utf8, "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z");
    EXPECT_EQ(ZKString::FromUtf8(utf8), text);
    // A stray continuation byte, a truncated sequence, an overlong encoding and an encoded
    // surrogate each become one replacement character; the text around them survives.
    EXPECT_EQ(ZKString::FromUtf8("x\x80y"), ZKString(L"x\uFFFDy"));
    EXPECT_EQ(ZKString::FromUtf8("x\xe2\x82y"), ZKString(L"x\uFFFDy"));
    EXPECT_EQ(ZKString::FromUtf8("x\xc0\xafy"), ZKString(L"x\uFFFDy"));
    EXPECT_EQ(ZKString::FromUtf8("x\xed\xa0\x80y"), ZKString(L"x\uFFFDy"));
    EXPECT_EQ(ZKString::FromUtf8("x\xf0\x9f"), ZKString(L"x\uFFFD"));

    EXPECT_EQ(ZKString::FromInt(LLONG_MIN), ZKString(L"-9223372036854775808"));
    EXPECT_EQ(ZKString::FromDouble(2.5), ZKString(L"2.5"));
    std::map<ZKString, int> ordered{{L"b", 2}, {L"a", 1}};
    EXPECT_EQ(ordered.begin()->first, ZKString(L"a"));
    std::unordered_map<ZKString, int> hashed{{ZKString(std::wstring_view(L"k")), 1}};
    EXPECT_EQ(hashed.count(L"k"), 1u);
}

TEST(SystemUtilityTest, ProcessorsAndEnvironment) {
    EXPECT_GE(SystemUtility::GetNumberOfProcessors(), 1u);
    ASSERT_EQ(setenv("RQ_PLATFORM_TEST_VAR", "caf\xc3\xa9", 1), 0);
    ZKString value;
    ASSERT_TRUE(SystemUtility::Getenv(L"RQ_PLATFORM_TEST_VAR", value));
    EXPECT_EQ(value, ZKString(L"caf\u00e9"));
    unsetenv("RQ_PLATFORM_TEST_VAR");
    EXPECT_FALSE(SystemUtility::Getenv("RQ_PLATFORM_TEST_VAR", value));
    EXPECT_FALSE(GlobalRpVariables::global_External_zK_EnableAggrDiagnostics.load());
}
