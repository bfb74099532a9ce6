#pragma once

#include "config/VolumeManagerConfig.h"

#include "support/SyslogCapture.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

/// A volume's state file in a folder of its own.
class StateFileTest : public ::testing::Test {
protected:
    StateFileTest() { clearLog(); }

    /// A state file with these two times, as the daemon writes it.
    static std::string stateText(const std::string& updated, const std::string& purged)
    {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Quarrow><Version>1.0</Version><Volume><last_updated_time>"
            + updated + "</last_updated_time><last_purge_time>" + purged + "</last_purge_time></Volume></Quarrow>\n";
    }

    std::string writeState(const std::string& content) const { return folder.writeFile("state.xml", content); }

    /// The purge time that a volume with this state file starts with, or what was thrown.
    std::string startWith(const std::string& path) const
    {
        try {
            return std::to_string(VolumeManagerConfig(path).getLastPurgeTime());
        } catch (const char* text) {
            return std::string("threw ") + text;
        }
    }
    std::string start() const { return startWith(statePath); }

    /// The purge time held after `t` was recorded, or what was thrown.
    static std::string record(VolumeManagerConfig& config, int t)
    {
        try {
            config.setLastPurgeTime(t);
            return std::to_string(config.getLastPurgeTime());
        } catch (const char* text) {
            return std::string("threw ") + text;
        }
    }

    /// Records a purge at `t`; the file with every update time between before and after as "NOW".
    std::string recorded(VolumeManagerConfig& config, int t) const
    {
        const std::time_t before = std::time(nullptr);
        config.setLastPurgeTime(t);
        const std::time_t after = std::time(nullptr);
        std::string content = folder.readFile("state.xml");
        const std::string opening = "<last_updated_time>";
        for (std::size_t at = content.find(opening); at != std::string::npos; at = content.find(opening, at)) {
            at += opening.length();
            const std::size_t end = std::min(content.find('<', at), content.length());
            for (std::time_t now = before; now <= after; ++now)
                if (content.substr(at, end - at) == std::to_string(now)) {
                    content.replace(at, end - at, "NOW");
                    break;
                }
        }
        return content;
    }

    /// The names in the folder, sorted.
    std::string names() const
    {
        std::vector<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
            all.push_back(entry.path().filename());
        std::sort(all.begin(), all.end());
        std::string text;
        for (const std::string& name : all)
            text += "[" + name + "]";
        return text;
    }

    static std::vector<LogLine> parseFailure() { return { { LOG_ERR, "Could not parse the config xml\n" } }; }

    static constexpr const char* thrownText = "threw Could not parse the config xml";

    TemporaryFolder folder;
    const std::string statePath = folder.path("state.xml");
};
