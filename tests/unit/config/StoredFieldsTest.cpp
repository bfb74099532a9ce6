#include "config/HostFileTest.h"
#include "config/StateFileTest.h"

#include <atomic>

namespace {

// What the two files hold beyond what anybody asks for yet. An explicit instantiation may name private members.
template <typename Field, typename Field::Member member>
struct Opened {
    friend typename Field::Member memberOf(Field /*unused*/) { return member; }
};
struct HostEnabled {
    using Member = bool QuarrowConfig::*;
    friend Member memberOf(HostEnabled);
};
struct HostUpdated {
    using Member = int QuarrowConfig::*;
    friend Member memberOf(HostUpdated);
};
struct HostRewalk {
    using Member = int QuarrowConfig::*;
    friend Member memberOf(HostRewalk);
};
struct StateUpdated {
    using Member = std::atomic<int> VolumeManagerConfig::*;
    friend Member memberOf(StateUpdated);
};
struct StateVersion {
    using Member = std::string VolumeManagerConfig::*;
    friend Member memberOf(StateVersion);
};
template struct Opened<HostEnabled, &QuarrowConfig::enabled>;
template struct Opened<HostUpdated, &QuarrowConfig::lastUpdatedTime>;
template struct Opened<HostRewalk, &QuarrowConfig::rewalkThreshold>;
template struct Opened<StateUpdated, &VolumeManagerConfig::lastUpdatedTime>;
template struct Opened<StateVersion, &VolumeManagerConfig::version>;

/// Switch, update time and re-walk threshold of the host configuration.
class StoredFieldsOfTheHostTest : public HostFileTest {
protected:
    std::string stored(const std::string& elements) const
    {
        write("<c>" + elements + "</c>");
        QuarrowConfig config;
        config.load();
        return std::string(config.*memberOf(HostEnabled()) ? "on " : "off ")
            + std::to_string(config.*memberOf(HostUpdated())) + " " + std::to_string(config.*memberOf(HostRewalk()));
    }
};

TEST_F(StoredFieldsOfTheHostTest, areOffAndZeroAndFourHoursUntilRead) { EXPECT_EQ("off 0 14400", stored("")); }

TEST_F(StoredFieldsOfTheHostTest, areOnForTheExactWordAlone)
{
    EXPECT_EQ("on 0 14400", stored("<quarrow_enabled>true</quarrow_enabled>"));
    for (const std::string text : { "yes", "TRUE", "True", " true", "true ", "1", "false" })
        EXPECT_EQ("off 0 14400",
            stored("<quarrow_enabled>true</quarrow_enabled><quarrow_enabled>" + text + "</quarrow_enabled>"))
            << text;
}

TEST_F(StoredFieldsOfTheHostTest, areTheLastNumbersOfTheFile)
{
    EXPECT_EQ("off 8 7200",
        stored("<last_updated_time>7</last_updated_time><x><last_updated_time> 8s</last_updated_time></x>"
               "<rewalk_threshold>1</rewalk_threshold><rewalk_threshold>7200</rewalk_threshold>"));
    EXPECT_EQ("off 0 0", stored("<rewalk_threshold>often</rewalk_threshold>"));
}

/// Version and update time of a state file.
class StoredFieldsOfTheStateTest : public StateFileTest {
protected:
    static std::string stored(const VolumeManagerConfig& config)
    {
        return config.*memberOf(StateVersion()) + " " + std::to_string(config.*memberOf(StateUpdated()));
    }
};

TEST_F(StoredFieldsOfTheStateTest, areOneAndZeroInANewFile)
{
    EXPECT_EQ("1.0 0", stored(VolumeManagerConfig(statePath)));
}

TEST_F(StoredFieldsOfTheStateTest, areReadAndStampedWithAPurge)
{
    writeState("<Quarrow><Volume><last_updated_time>7</last_updated_time></Volume><Version>2</Version></Quarrow>");
    VolumeManagerConfig config(statePath);
    EXPECT_EQ("2 7", stored(config));
    const std::time_t before = std::time(nullptr);
    config.setLastPurgeTime(5);
    EXPECT_LE(before, config.*memberOf(StateUpdated()));
    EXPECT_GE(std::time(nullptr), config.*memberOf(StateUpdated()));
}

TEST_F(StoredFieldsOfTheStateTest, areNotStampedWhereTheFileHasNone)
{
    writeState("<Quarrow><Volume><last_purge_time>7</last_purge_time></Volume></Quarrow>");
    VolumeManagerConfig config(statePath);
    config.setLastPurgeTime(5);
    EXPECT_EQ("1.0 0", stored(config));
}

} // namespace
