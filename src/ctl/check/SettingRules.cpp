#include "ctl/check/SettingRules.h"

#include "config/XmlDocument.h"
#include "ctl/check/ConfigurationTexts.h"
#include "ctl/check/Findings.h"
#include "ctl/check/HostReading.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace {

/// By the daemon's own function: as far as it is a number, and cut to 32 bits.
int numberOf(const TextAt& setting) { return numberIn(setting.text.c_str()); }

bool isAbsent(const TextAt& setting) { return setting.line == 0; }

bool isDecimal(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(" \t\n\v\f\r");
    if (first == std::string::npos)
        return false;
    const std::size_t digits = text[first] == '-' || text[first] == '+' ? first + 1 : first;
    const std::size_t end = text.find_first_not_of("0123456789", digits);
    return digits < text.length() && end != digits && text.find_first_not_of(blanks, end) == std::string::npos;
}

bool fitsInt(const std::string& text)
{
    errno = 0;
    const long long number = std::strtoll(text.c_str(), nullptr, 10);
    return errno == 0 && number >= INT_MIN && number <= INT_MAX;
}

std::string shown(const TextAt& setting) { return quoted(excerpt(setting.text)); }

/// What is wrong with the text as a number; empty when nothing is.
std::string faultOf(const TextAt& number)
{
    if (!isDecimal(number.text))
        return shown(number) + ", which is no number";
    return fitsInt(number.text) ? "" : shown(number) + ", which does not fit into 32 bits";
}

/// `name` with the tag's brackets.
void checkNumber(const std::string& name, const TextAt& number, const FindingsAbout& found)
{
    if (isAbsent(number))
        return;
    const std::string fault = faultOf(number);
    if (!fault.empty())
        found.warn(number.line, name + " is " + fault + ". The daemon reads it as " + std::to_string(numberOf(number)),
            "Write digits alone, for a number up to 2147483647");
}

/// For a number that must not be 0, and is.
void refuseZero(const std::string& name, const TextAt& number, const std::string& remedy, const FindingsAbout& found)
{
    const std::string fault = faultOf(number);
    found.refuse(
        number.line, fault.empty() ? name + " is 0" : name + " is " + fault + ". The daemon reads it as 0", remedy);
}

} // namespace

void checkRequirements(const HostReading& reading, const FindingsAbout& found)
{
    if (reading.version.text.empty())
        found.refuse(reading.version.line, "There is no <Version> with a text",
            "Write <Version>1.0</Version> into the root element");
    const std::string time = "Write the time in seconds since 1970 into it, or any number but 0";
    if (isAbsent(reading.lastUpdatedTime))
        found.refuse(0, "There is no <last_updated_time> with a text",
            "Write <last_updated_time>1</last_updated_time> into the root element");
    else if (numberOf(reading.lastUpdatedTime) == 0)
        refuseZero("<last_updated_time>", reading.lastUpdatedTime, time, found);
    if (!isAbsent(reading.purgeThreshold) && numberOf(reading.purgeThreshold) == 0)
        refuseZero("<purge_threshold>", reading.purgeThreshold,
            "Write how many seconds deleted rows are kept at least, such as 5184000, or remove it", found);
    if (reading.volumes.empty())
        found.refuse(0, "There is no volume: no <Root> with a text in a <Volume> in <Volumes>",
            "Write <Volumes><Volume><Name>media</Name><Root>/srv/media</Root></Volume></Volumes>, with your own paths,"
            " into the root element");
}

void checkSettings(const HostReading& reading, const FindingsAbout& found)
{
    // A 0 was refused, with the same words.
    if (numberOf(reading.lastUpdatedTime) != 0)
        checkNumber("<last_updated_time>", reading.lastUpdatedTime, found);
    if (numberOf(reading.purgeThreshold) != 0)
        checkNumber("<purge_threshold>", reading.purgeThreshold, found);
    checkNumber("<rewalk_threshold>", reading.rewalkThreshold, found);
    if (numberOf(reading.purgeThreshold) < 0)
        found.warn(reading.purgeThreshold.line,
            "<purge_threshold> is below 0: every purge removes all deleted rows at once, before their readers see them",
            "Write how many seconds they are kept at least, such as 5184000");
    if (!isAbsent(reading.enabled) && reading.enabled.text != "true")
        found.warn(reading.enabled.line,
            "<quarrow_enabled> is " + shown(reading.enabled)
                + ", which has no effect: the daemon catalogues all the same",
            "To switch the daemon off, do not start it");
}
