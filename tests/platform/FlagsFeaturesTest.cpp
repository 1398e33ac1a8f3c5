// Compatibility flags, database features, target types, the text utilities and the
// diagnostics variables.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <climits>
#include <functional>
#include <map>
#include <thread>

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
    using F = SUFeaturesTable;
    for (int i = 0; i < F::kFeatureCount; ++i) {
        F::FeatureId back = F::kFeatureCount;
        EXPECT_TRUE(F::FromName(F::Name(F::FeatureId(i)), back) && back == F::FeatureId(i)) << i;
    }
    F::FeatureId f = F::kFeatureCount;
    EXPECT_TRUE(F::FromName(L"order_by", f) && f == F::kFeature_OrderBy);
    EXPECT_FALSE(F::FromName(L"ORDER BY", f));

    auto repo = std::make_shared<RpRepository>();
    const RefADatabase db =
        repo->AddDatabase(L"D", ServerInfo::kRowStoreDatabase, {F::kFeature_WithClause});
    const RefADatabase cube = repo->AddDatabase(L"C", ServerInfo::kCubeMdxServer);
    RpSession session(repo);
    EXPECT_TRUE(FeaturesMgr::IsSupportedFeature(db, F::kFeature_WithClause, &session));
    EXPECT_FALSE(FeaturesMgr::IsSupportedFeature(db, F::kFeature_OrderBy, &session));
    EXPECT_FALSE(FeaturesMgr::IsSupportedFeature(cube, F::kFeature_OrderBy, &session));
    EXPECT_FALSE(FeaturesMgr::IsSupportedFeature(RefADatabase(), F::kFeature_OrderBy, &session));
}

TEST(ServerInfoTest, ClassificationAndNamesOfTargetTypes) {
    for (int v = 0; v < 100; ++v) {
        const auto type = static_cast<ServerInfo::TargetType>(v);
        EXPECT_EQ(ServerInfo::IsPureStorageServerType(type), v == 9);
        EXPECT_EQ(ServerInfo::IsRemoteTargetType(type), v != 0 && v != 1);
        // A type reads back from its name and from its number; a number without a type
        // does not read.
        ServerInfo::TargetType back = ServerInfo::kUnknown;
        const wchar_t* name = ServerInfo::TargetTypeName(type);
        EXPECT_EQ(ServerInfo::TargetTypeFromName(std::to_wstring(v), back), name != nullptr) << v;
        EXPECT_TRUE(name == nullptr || (ServerInfo::TargetTypeFromName(name, back) && back == type))
            << v;
    }
    EXPECT_TRUE(ServerInfo::IsTargetTypeMDXBased(ServerInfo::kCubeXmlaServerNext));
    EXPECT_FALSE(ServerInfo::IsTargetTypeMDXBased(ServerInfo::kColumnarAppliance));
    ServerInfo::TargetType t = ServerInfo::kUnknown;
    EXPECT_TRUE(ServerInfo::TargetTypeFromName(L"RawStore", t));
    EXPECT_EQ(t, ServerInfo::kInternalRawDataStorage);
}

TEST(StringUtilTest, IntegersBooleansUtf8AndTheEnvironment) {
    long long v = 0;
    EXPECT_TRUE(BaseStringUtil::IntFrom(L" +42\t", v) && v == 42);
    EXPECT_TRUE(BaseStringUtil::IntFrom(L"9223372036854775807", v) && v == LLONG_MAX);
    EXPECT_TRUE(BaseStringUtil::IntFrom(L"-9223372036854775808", v) && v == LLONG_MIN);
    for (const wchar_t* bad : {L"", L"-", L"+", L"1 2", L"0x10", L"9223372036854775808",
                               L"-9223372036854775809", L"1.0"})
        EXPECT_FALSE(BaseStringUtil::IsInteger(bad)) << ZKString(bad).ToUtf8();
    bool b = false;
    EXPECT_TRUE(BaseStringUtil::BooleanFrom(L" YES ", b) && b);
    EXPECT_TRUE(BaseStringUtil::BooleanFrom(L"Off", b) && !b);
    EXPECT_FALSE(BaseStringUtil::BooleanFrom(L"2", b));
    EXPECT_EQ(ErrorNumberOf([] { PropertyValue(ZKString(L"x1")).GetInteger(); }),
              static_cast<unsigned long>(kErr_PropertyNotInteger));

    const ZKString text(L"a\u00e9\u20ac\U0001F600z");
    EXPECT_EQ(text.ToUtf8(), "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z");
    EXPECT_EQ(ZKString::FromUtf8(text.ToUtf8()), text);
    // A stray continuation byte, a truncated sequence, an overlong encoding and an encoded
    // surrogate each become one replacement character; the text around them survives.
    for (const char* bad : {"x\x80y", "x\xe2\x82y", "x\xc0\xafy", "x\xed\xa0\x80y"})
        EXPECT_EQ(ZKString::FromUtf8(bad), ZKString(L"x\uFFFDy")) << bad;
    EXPECT_EQ(ZKString::FromUtf8("x\xf0\x9f"), ZKString(L"x\uFFFD"));

    ASSERT_EQ(setenv("RQ_PLATFORM_TEST_VAR", "caf\xc3\xa9", 1), 0);
    ZKString value;
    EXPECT_TRUE(SystemUtility::Getenv(L"RQ_PLATFORM_TEST_VAR", value));
    EXPECT_EQ(value, ZKString(L"caf\u00e9"));
    unsetenv("RQ_PLATFORM_TEST_VAR");
    EXPECT_FALSE(SystemUtility::Getenv("RQ_PLATFORM_TEST_VAR", value));
}

// A session switches the diagnostics on through the properties the variables name (the
// cache one is a string property read as a level); renaming a property moves the switch.
TEST(GlobalRpVariablesTest, TheDiagnosticsVariablesNameSessionProperties) {
    GlobalPropertyName& aggr = GlobalRpVariables::global_External_zK_EnableAggrDiagnostics;
    GlobalPropertyName& cache = GlobalRpVariables::global_External_zK_EnableCacheDiagnostics;
    RpSession session(std::make_shared<RpRepository>());
    session.SetIntegerSessionProperty(aggr.Get(), 3);
    session.SetStringSessionProperty(cache.Get(), L"2");
    long long aggrLevel = 0, cacheLevel = 0;
    EXPECT_TRUE(session.GetIntegerSessionProperty(aggr.Get(), aggrLevel) && aggrLevel == 3);
    EXPECT_TRUE(session.GetIntegerSessionProperty(cache.Get(), cacheLevel) && cacheLevel == 2);

    const ZKString original = aggr.Get();
    std::thread([&] { aggr.Set(L"SESSION_AGGR_LEVEL"); }).join();
    EXPECT_FALSE(session.GetIntegerSessionProperty(aggr.Get(), aggrLevel));
    aggr.Set(original);
}
