// Compatibility flags, database features, target types, the text utilities and the
// diagnostics variables.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <climits>
#include <functional>
#include <map>
#include <thread>
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
        ErrorMessage::ClearLastPrethrown();
        return e.GetNumber();
    }
    return 0;
}

}  // namespace

TEST_F(CompatFlagTest, EveryFlagReadsItsDefaultUntilSet) {
    std::map<std::wstring, int> seen;
    for (const CompatFlagInfo& info : CompatFlagCatalog::All()) {
        EXPECT_EQ(++seen[info.m_name], 1) << "listed twice";
        EXPECT_TRUE(info.m_bIsInt || info.m_default == 0 || info.m_default == 1);
        const int value = info.m_bIsInt ? SOCompatFlag::GetInt(info.m_name, &m_session)
                                        : SOCompatFlag::GetBool(info.m_name, &m_session);
        EXPECT_EQ(value, info.m_default);
    }
    EXPECT_EQ(CompatFlagCatalog::Find(L"veld_enable_hash_group_by"),
              CompatFlagCatalog::Find(L"VELD_ENABLE_HASH_GROUP_BY"));
    EXPECT_EQ(CompatFlagCatalog::Find(L"VELD_NO_SUCH_FLAG"), nullptr);
}

TEST_F(CompatFlagTest, SessionValueBeatsServerValueBeatsDefault) {
    const ZKString flag = L"VELD_ENABLE_AVERAGE_REWRITE";
    EXPECT_TRUE(SOCompatFlag::GetBool(flag, &m_session));
    SUCompatFlag::SetBool(flag, false);
    EXPECT_FALSE(SOCompatFlag::GetBool(flag, &m_session));
    EXPECT_FALSE(SOCompatFlag::GetBool(flag, nullptr));
    m_session.SetCompatFlag(L"veld_enable_average_rewrite", true);
    EXPECT_TRUE(SOCompatFlag::GetBool(flag, &m_session));
    EXPECT_FALSE(SOCompatFlag::GetBool(flag, std::make_unique<RpSession>(m_pRepo).get()));
    m_session.ClearCompatFlag(flag);
    EXPECT_FALSE(SOCompatFlag::GetBool(flag, &m_session));
    SUCompatFlag::Reset();
    EXPECT_TRUE(SOCompatFlag::GetBool(flag, &m_session));

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
    SUCompatFlag::SetBool(L"VELD_UNDO_16038091", true);
    EXPECT_TRUE(SOCompatFlag::GetBool(L"VELD_UNDO_16038091", &m_session));
    const std::pair<unsigned long, std::function<void()>> refusals[] = {
        {kErr_ServerCompatFlagInSession,
         [&] { m_session.SetCompatFlag(L"VELD_USE_11GSORT", true); }},
        {kErr_UnknownCompatFlag, [&] { m_session.SetCompatFlag(L"VELD_NOPE", true); }},
        {kErr_BadCompatFlagValue,
         [&] { m_session.SetCompatFlag(L"VELD_ENABLE_SORT_AGGREGATION", 2); }},
        {kErr_BadCompatFlagValue,
         [&] { m_session.SetCompatFlag(L"VELD_MAX_UNION_ALL_CHILDREN", true); }},
        {kErr_BadCompatFlagValue,
         [&] { m_session.SetCompatFlagFromText(L"VELD_MAX_UNION_ALL_CHILDREN", L"many"); }},
    };
    for (const auto& [number, refused] : refusals)
        EXPECT_EQ(ErrorNumberOf(refused), number);
    EXPECT_FALSE(SOCompatFlag::GetBool(L"VELD_USE_11GSORT", &m_session));
    EXPECT_EQ(SOCompatFlag::GetInt(L"VELD_MAX_UNION_ALL_CHILDREN", &m_session), 0);
}

TEST_F(CompatFlagTest, ReadingUnknownFlagOrWrongKindIsAProgrammingError) {
    EXPECT_DEATH(SOCompatFlag::GetBool(L"VELD_NO_SUCH_FLAG", &m_session),
                 "ASSERTION FAILED: .*VELD_NO_SUCH_FLAG");
    EXPECT_DEATH(SUCompatFlag::GetBool(L"VELD_NO_SUCH_FLAG"), "ASSERTION FAILED");
    EXPECT_DEATH(SOCompatFlag::GetBool(L"VELD_ENABLE_HASH_GROUP_BY", &m_session),
                 "ASSERTION FAILED");
}

TEST(FeaturesTest, NamesRoundTripAndSupportComesFromTheDatabase) {
    for (int i = 0; i < SUFeaturesTable::kFeatureCount; ++i) {
        const auto f = static_cast<SUFeaturesTable::FeatureId>(i);
        SUFeaturesTable::FeatureId back = SUFeaturesTable::kFeatureCount;
        ASSERT_TRUE(SUFeaturesTable::FromName(SUFeaturesTable::Name(f), back));
        EXPECT_EQ(back, f);
    }
    SUFeaturesTable::FeatureId f = SUFeaturesTable::kFeatureCount;
    EXPECT_TRUE(SUFeaturesTable::FromName(L"order_by", f));
    EXPECT_EQ(f, SUFeaturesTable::kFeature_OrderBy);
    EXPECT_FALSE(SUFeaturesTable::FromName(L"ORDER BY", f));

    auto repo = std::make_shared<RpRepository>();
    const RefADatabase db = repo->AddDatabase(L"D", ServerInfo::kRowStoreDatabase,
                                              {SUFeaturesTable::kFeature_WithClause});
    const RefADatabase cube = repo->AddDatabase(L"C", ServerInfo::kCubeMdxServer);
    RpSession session(repo);
    using F = SUFeaturesTable;
    EXPECT_TRUE(FeaturesMgr::IsSupportedFeature(db, F::kFeature_WithClause, &session));
    EXPECT_FALSE(FeaturesMgr::IsSupportedFeature(db, F::kFeature_OrderBy, &session));
    EXPECT_FALSE(FeaturesMgr::IsSupportedFeature(cube, F::kFeature_OrderBy, &session));
    EXPECT_FALSE(FeaturesMgr::IsSupportedFeature(RefADatabase(), F::kFeature_OrderBy, &session));
}

TEST(ServerInfoTest, ClassificationAndNamesOfTargetTypes) {
    std::vector<int> mdx;
    for (int v = 0; v < 100; ++v) {
        const auto type = static_cast<ServerInfo::TargetType>(v);
        if (ServerInfo::IsTargetTypeMDXBased(type))
            mdx.push_back(v);
        EXPECT_EQ(ServerInfo::IsPureStorageServerType(type), v == 9);
        EXPECT_EQ(ServerInfo::IsRemoteTargetType(type), v != 0 && v != 1);
        if (const wchar_t* name = ServerInfo::TargetTypeName(type)) {
            ServerInfo::TargetType back = ServerInfo::kUnknown;
            ASSERT_TRUE(ServerInfo::TargetTypeFromName(name, back)) << v;
            EXPECT_EQ(back, type);
            ASSERT_TRUE(ServerInfo::TargetTypeFromName(std::to_wstring(v), back));
            EXPECT_EQ(back, type);
        }
    }
    EXPECT_EQ(mdx, (std::vector<int>{33, 34, 41, 58, 60, 77}));
    ServerInfo::TargetType t = ServerInfo::kUnknown;
    EXPECT_TRUE(ServerInfo::TargetTypeFromName(L"RawStore", t));
    EXPECT_EQ(t, ServerInfo::kInternalRawDataStorage);
    EXPECT_FALSE(ServerInfo::TargetTypeFromName(L"8", t));  // a value without a type
    EXPECT_FALSE(ServerInfo::TargetTypeFromName(L"nosuch", t));
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
                               L"-9223372036854775809", L"1.0"})
        EXPECT_FALSE(BaseStringUtil::IsInteger(bad)) << ZKString(bad).ToUtf8();
    bool b = false;
    EXPECT_TRUE(BaseStringUtil::BooleanFrom(L" YES ", b) && b);
    EXPECT_TRUE(BaseStringUtil::BooleanFrom(L"Off", b) && !b);
    EXPECT_FALSE(BaseStringUtil::BooleanFrom(L"2", b));

    EXPECT_EQ(PropertyValue(ZKString(L"-8")).GetInteger(), -8);
    EXPECT_EQ(ErrorNumberOf([] { PropertyValue(ZKString(L"x1")).GetInteger(); }),
              static_cast<unsigned long>(kErr_PropertyNotInteger));
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
}

// A session switches the diagnostics on through the properties the variables name, and a
// server that renames a property moves the switch while other threads read the name.
TEST(GlobalRpVariablesTest, TheDiagnosticsVariablesNameSessionProperties) {
    GlobalPropertyName& aggr = GlobalRpVariables::global_External_zK_EnableAggrDiagnostics;
    GlobalPropertyName& cache = GlobalRpVariables::global_External_zK_EnableCacheDiagnostics;
    RpSession session(std::make_shared<RpRepository>());
    session.SetIntegerSessionProperty(aggr.Get(), 3);
    session.SetStringSessionProperty(cache.Get(), L"2");
    long long level = 0;
    ZKString text;
    ASSERT_TRUE(session.GetIntegerSessionProperty(aggr.Get(), level));
    EXPECT_EQ(level, 3);
    ASSERT_TRUE(session.GetStringSessionProperty(cache.Get(), text));
    EXPECT_EQ(text, ZKString(L"2"));

    const ZKString original = aggr.Get();
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            const ZKString name = aggr.Get();
            EXPECT_TRUE(name == original || name == L"SESSION_AGGR_LEVEL") << name.ToUtf8();
        }
    });
    for (int i = 0; i < 2000; ++i)
        aggr.Set(i % 2 == 0 ? ZKString(L"SESSION_AGGR_LEVEL") : original);
    done = true;
    reader.join();
    aggr.Set(L"SESSION_AGGR_LEVEL");
    EXPECT_FALSE(session.GetIntegerSessionProperty(aggr.Get(), level));
    aggr.Set(original);
}
