#include "tools/mfpsim_status.h"

namespace {

// "1 entry", "2 entries".
std::string Number(std::size_t c, char const *pszOne, char const *pszMore)
{
    return std::to_string(c) + " " + (c == 1 ? pszOne : pszMore);
}

void ListLinks(DeviceStatus const &status, std::vector<std::string> *pLines)
{
    pLines->push_back("links: " + std::to_string(status.links.size()));
    for (LinkStatus const &link : status.links) {
        std::string str = "  link " + std::to_string(link.id) + ": " +
                          (link.fNetwork ? "network " : "local ") + link.strAddress + ", " +
                          Number(link.cEntries, "entry", "entries");
        for (char const *pszObject : link.objects) {
            str += std::string(", ") + pszObject;
        }
        pLines->push_back(str);
    }
}

void ListKicks(DeviceStatus const &status, std::vector<std::string> *pLines)
{
    pLines->push_back("kicks on their way: " + std::to_string(status.kicks.size()));
    for (KickStatus const &kick : status.kicks) {
        pLines->push_back("  kick " + std::to_string(kick.dwSequence) + " to " +
                          FormatAddress(kick.to) + ", " + Number(kick.cTries, "try", "tries") +
                          ": " + kick.strDatagram);
    }
}

std::string ButtonText(DeviceStatus const &status)
{
    if (status.tokenHolder != 0) {
        return "claimed by link " + std::to_string(status.tokenHolder);
    }
    return status.fPressWaits ? "pressed, nobody has claimed it" : "no press waits";
}

std::string HabitsText(DeviceHabits const &habits)
{
    std::string str;
    auto const add = [&](char const *pszName, unsigned n) {
        if (n > 0) {
            str += (str.empty() ? "" : ", ") + std::string(pszName) + " " + std::to_string(n);
        }
    };
    add("drop", habits.kicks.cDrop);
    add("repeat", habits.kicks.cRepeat);
    add("reorder", habits.kicks.cReorder);
    add("lose-echo", habits.kicks.cLoseEcho);
    add("refuse-claim", habits.cRefuseClaims);
    add("garble", habits.cGarble);
    add("late", habits.dwLateMs);
    if (habits.fMute) {
        str += str.empty() ? "mute" : ", mute";
    }
    return str.empty() ? "none" : str;
}

} // namespace

std::vector<std::string> StatusLines(DeviceStatus const &status)
{
    std::vector<std::string> lines;
    ListLinks(status, &lines);
    lines.push_back(std::string("feeder: ") + (status.fFeeder ? "on" : "off"));
    lines.push_back(std::string("fax: ") + (status.fFax ? "waits" : "none"));
    lines.push_back("button: " + ButtonText(status));
    ListKicks(status, &lines);
    lines.push_back("misbehaviour: " + HabitsText(status.habits));
    return lines;
}
