#pragma once

#include "support/FakeClock.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

/// Volumes side by side in a temporary folder, each in the folder of its name. The time stands still.
class VolumesFixture : public ::testing::Test {
protected:
    static constexpr time_t aMoment = 1700000000;

    std::string catalogue(const std::string& name) const { return folder.path(name + "/.quarrow/quarrow.db"); }
    void spoilStateFile(const std::string& name) const
    {
        folder.writeFile(name + "/.quarrow/quarrow-volume.xml", "garbage");
    }
    /// The line that tells of a volume that cannot be worked on.
    static std::string failure(const std::string& name)
    {
        return "Got an exception during the walking of volumeManager " + name + "\n";
    }

    TemporaryFolder folder;
    ClockAt clock { aMoment };
};
