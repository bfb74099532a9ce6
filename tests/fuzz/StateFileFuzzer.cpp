#include "FuzzSupport.h"

#include "XmlReference.h"
#include "config/VolumeManagerConfig.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace {

const char* const stateFile = "quarrow-volume.xml";

bool isTime(const XmlReference::Element& element, const char* name)
{
    return element.ancestry(0) == name && element.ancestry(1) == "Volume" && element.ancestry(2) == "Quarrow"
        && element.ancestry(3).empty();
}

bool isUpdateTime(const XmlReference::Element& element) { return isTime(element, "last_updated_time"); }
bool isPurgeTime(const XmlReference::Element& element) { return isTime(element, "last_purge_time"); }
bool isAnyTime(const XmlReference::Element& element) { return isUpdateTime(element) || isPurgeTime(element); }

/// What a state file says, and whether it has room for a purge time.
struct ExpectedState {
    explicit ExpectedState(const std::string& content)
    {
        const XmlReference reference = XmlReference::ofText(content);
        isParsed = reference.isParsed() && !reference.hasEntitiesOfDeclarations();
        for (const XmlReference::Element& element : reference.elements()) {
            hasPurgeTime = hasPurgeTime || isPurgeTime(element);
            if (isPurgeTime(element) && element.text)
                lastPurgeTime = std::atoi(element.text->c_str());
        }
        if (isParsed)
            withoutTimes = reference.withTextIn(isAnyTime, "");
    }

    bool isParsed = false;
    bool hasPurgeTime = false;
    int lastPurgeTime = 0;
    std::string withoutTimes; ///< the whole document, the two times left out
};

/// The volume's state in the file; nothing when it cannot be parsed, which is logged and thrown as it is promised.
std::unique_ptr<VolumeManagerConfig> load(const PrivateFolder& folder)
{
    try {
        auto state = std::make_unique<VolumeManagerConfig>(folder.path(stateFile));
        REQUIRE(takeLog().empty());
        return state;
    } catch (const char* message) {
        REQUIRE(std::strcmp(message, "Could not parse the config xml") == 0);
        REQUIRE(takeLog() == std::vector<std::string>({ "3 Could not parse the config xml\n" }));
        return nullptr;
    }
}

/// A purge at `t` is in the file and in the object, whose other content is what it was.
void checkPurge(const PrivateFolder& folder, VolumeManagerConfig& state, const ExpectedState& before, int t)
{
    const int expected = before.hasPurgeTime ? t : before.lastPurgeTime;
    const std::time_t start = std::time(nullptr);
    state.setLastPurgeTime(t);
    const std::time_t end = std::time(nullptr);
    REQUIRE(takeLog().empty());
    REQUIRE(state.getLastPurgeTime() == expected);
    REQUIRE(folder.names() == std::vector<std::string>({ stateFile })); // nothing left beside it

    const std::string content = folder.read(stateFile);
    const ExpectedState after(content);
    REQUIRE(after.isParsed);
    REQUIRE(after.lastPurgeTime == expected);
    REQUIRE(after.withoutTimes == before.withoutTimes);
    const XmlReference written = XmlReference::ofText(content);
    for (const XmlReference::Element& element : written.elements()) {
        if (isUpdateTime(element)) {
            REQUIRE(element.text);
            const int stamp = std::atoi(element.text->c_str());
            REQUIRE(stamp >= static_cast<int>(start) && stamp <= static_cast<int>(end));
        }
    }
}

} // namespace

/// The bytes are the file. Users of a volume can put anything there.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const PrivateFolder folder;
    const std::string content(reinterpret_cast<const char*>(data), size);
    folder.write(stateFile, content);
    const ExpectedState expected(content);

    const XmlLoads loads;
    const auto state = load(folder);
    REQUIRE((state != nullptr) == expected.isParsed);
    if (state == nullptr) {
        REQUIRE(folder.read(stateFile) == content); // whoever looks into the trouble finds what was there
    } else {
        REQUIRE(state->getLastPurgeTime() == expected.lastPurgeTime);
        checkPurge(folder, *state, expected, static_cast<int>(static_cast<unsigned>(size) * 1000003U));
        const auto next = load(folder); // the start after this one
        REQUIRE(next != nullptr);
        checkPurge(folder, *next, ExpectedState(folder.read(stateFile)), -1);
    }
    REQUIRE(folder.names() == std::vector<std::string>({ stateFile }));
    REQUIRE(loads.urls().empty()); // no document makes the daemon open another
    return 0;
}
