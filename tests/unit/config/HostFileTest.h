#pragma once

#include "config/QuarrowConfig.h"

#include "support/SyslogCapture.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>
#include <list>
#include <string>
#include <vector>

/// A host configuration file in a folder of its own, to which the environment leads.
class HostFileTest : public ::testing::Test {
protected:
    HostFileTest()
    {
        setenv("QUARROW_CONFIG_FILE", folder.path("host.xml").c_str(), 1);
        clearLog();
    }
    ~HostFileTest() override { unsetenv("QUARROW_CONFIG_FILE"); }

    void write(const std::string& content) const { folder.writeFile("host.xml", content); }

    /// A file that is complete except for what may be given; a part is left out by giving "".
    void writeWith(const std::string& volumes, const std::string& version = "<Version>1.0</Version>",
        const std::string& updated = "<last_updated_time>1700000000</last_updated_time>",
        const std::string& rest = "") const
    {
        write("<Config>" + version + updated + rest + "<Volumes>" + volumes + "</Volumes></Config>");
    }

    /// The volumes, one a line: name, "=", root.
    static std::string volumes(const QuarrowConfig& config)
    {
        std::string all;
        for (const auto& [name, root] : config.getQuarrowVolumes())
            all += name + "=" + root + "\n";
        return all;
    }

    static std::string crawlPaths(QuarrowConfig& config, const std::string& volume)
    {
        std::list<std::string> paths;
        config.getCrawlPaths(volume, paths);
        return inBrackets(paths);
    }

    static std::string excludePaths(QuarrowConfig& config, const std::string& volume)
    {
        std::list<std::string> paths;
        config.getExcludePaths(volume, paths);
        return inBrackets(paths);
    }

    static std::string inBrackets(const std::list<std::string>& words)
    {
        std::string all;
        for (const std::string& word : words)
            all += "[" + word + "]";
        return all;
    }

    static std::vector<LogLine> parseFailure() { return { { LOG_ERR, "Could not parse the config xml\n" } }; }

    TemporaryFolder folder;
};
