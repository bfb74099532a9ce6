#include "FuzzSupport.h"

#include "XmlReference.h"
#include "ctl/check/CheckReport.h"
#include "ctl/check/ConfigurationCheck.h"
#include "ctl/check/Machine.h"

#include <cstdlib>

namespace {

/// One that lacks nothing and holds nothing up.
Machine someMachine()
{
    Machine machine;
    machine.mimeTable = "/dev/null";
    machine.standbyMarker = "/dev/null/standby";
    machine.watchLimit = machine.watchLimitHere = machine.instanceLimit = "/dev/null";
    machine.tryInotify = [] { return 0; };
    return machine;
}

} // namespace

/// The bytes are the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const PrivateFolder folder;
    const std::string path = folder.path("quarrow-host.xml");
    setenv("QUARROW_CONFIG_FILE", path.c_str(), 1);
    folder.write("quarrow-host.xml", std::string(reinterpret_cast<const char*>(data), size));

    XmlLoads loads;
    const ConfigurationCheck check(someMachine());
    // What explains is other code than what decides.
    REQUIRE(check.isConsistent());
    REQUIRE(check.isAccepted() == !check.findings().hasRefusal());
    for (const Finding& finding : check.findings().list()) {
        REQUIRE(!finding.subject.empty() && !finding.reason.empty() && !finding.remedy.empty());
        REQUIRE(finding.line >= 0);
    }
    REQUIRE(loads.urls() == std::vector<std::string>({ path, path }));
    REQUIRE(takeLog().size() <= 1); // of the daemon's class, when it cannot parse
    printCheck(check);
    printCheckAsJson(check);
    return 0;
}
