#include "tools/mfpsim_expect.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace {

using Words = std::vector<std::string>;

constexpr double kMaxMilliseconds = 24 * 60 * 60 * 1000;

struct WhatRow {
    char const *pszName;
    char const *pszArguments;
    Expectation::Kind eKind;
    char const *pszEvent; // of eEVENT; null when the user names it
    bool fText;           // a text follows
    char const *pszHelp;
};

constexpr WhatRow g_whats[] = {
    {"entry", "TEXT", Expectation::eENTRY, "", true,
     "an entry holds TEXT in any case, and its client hears picks"},
    {"gone", "TEXT", Expectation::eGONE, "", true, "no entry holds TEXT"},
    {"link", "", Expectation::eLINK, "", false, "a client is connected"},
    {"subscription", "OBJECT", Expectation::eSUBSCRIPTION, "", true,
     "a client has registered for OBJECT"},
    {"echo", "", Expectation::eEVENT, "kick-echoed", false, "a datagram is echoed"},
    {"claim", "[by LINK]", Expectation::eEVENT, "press-claimed", false,
     "a press is claimed; LINK is a link's number or a local link's address"},
    {"event", "NAME [FIELD=TEXT]...", Expectation::eEVENT, nullptr, true,
     "an event of that name in --json, with these fields"},
};

bool IsEvent(std::string const &strName)
{
    for (int i = 0; i < eEV_COUNT; ++i) {
        if (strName == DeviceEventName(static_cast<DeviceEventKind>(i))) {
            return true;
        }
    }
    return false;
}

bool Fail(std::string *pstrError, std::string strReason)
{
    *pstrError = std::move(strReason);
    return false;
}

std::string Join(Words const &words, std::size_t nFirst)
{
    std::string str;
    for (std::size_t i = nFirst; i < words.size(); ++i) {
        str += (i > nFirst ? " " : "") + words[i];
    }
    return str;
}

bool ParseEvent(Words const &words, Expectation *p, std::string *pstrError)
{
    if (words.size() < 2 || !IsEvent(words[1])) {
        return Fail(pstrError,
                    "there is no event " + (words.size() < 2 ? std::string() : words[1]));
    }
    p->strText = words[1];
    for (std::size_t i = 2; i < words.size(); ++i) {
        std::size_t const nEqual = words[i].find('=');
        if (nEqual == std::string::npos) {
            return Fail(pstrError, "a field is FIELD=TEXT, not " + words[i]);
        }
        p->fields.emplace_back(words[i].substr(0, nEqual), words[i].substr(nEqual + 1));
    }
    return true;
}

// A claim's "by LINK", or nothing.
bool ParseBy(Words const &words, Expectation *p, std::string *pstrError)
{
    if (words.size() == 1) {
        return true;
    }
    if (words[0] != "claim" || words.size() != 3 || words[1] != "by") {
        return Fail(pstrError, words[0] + " does not take " + Join(words, 1));
    }
    p->strClaimer = words[2];
    return true;
}

std::string FieldText(DeviceEventField const &field)
{
    auto const *const pText = std::get_if<std::string>(&field.value);
    return pText ? *pText : std::to_string(std::get<std::uint64_t>(field.value));
}

bool HasField(DeviceEvent const &event, std::string const &strName, std::string const &strText)
{
    return std::any_of(event.fields.begin(), event.fields.end(), [&](DeviceEventField const &f) {
        return f.pszName == strName && FieldText(f) == strText;
    });
}

// The number of the link that is meant, as it stands in events.
std::string LinkNumber(CSoftDevice &device, std::string const &strLink)
{
    for (LinkStatus const &link : device.Status().links) {
        if (link.strAddress == strLink) {
            return std::to_string(link.id);
        }
    }
    return strLink;
}

bool HasSubscription(CSoftDevice &device, std::string const &strObject)
{
    DeviceStatus const status = device.Status();
    return std::any_of(status.links.begin(), status.links.end(), [&](LinkStatus const &link) {
        return std::find(link.objects.begin(), link.objects.end(), strObject) != link.objects.end();
    });
}

} // namespace

bool ParseTime(std::string const &str, unsigned *pnMilliseconds)
{
    double d = 0;
    char const *const pEnd = str.data() + str.size();
    auto const [p, error] = std::from_chars(str.data(), pEnd, d, std::chars_format::fixed);
    std::string const strUnit(p, pEnd);
    d *= strUnit == "s" ? 1000 : 1;
    bool const fUnit = strUnit.empty() || strUnit == "s" || strUnit == "ms";
    if (error != std::errc() || !fUnit || std::signbit(d) || !(d <= kMaxMilliseconds)) {
        return false;
    }
    *pnMilliseconds = static_cast<unsigned>(std::lround(d));
    return true;
}

bool ParseExpectation(std::vector<std::string> const &allWords, Expectation *pExpectation,
                      std::string *pstrError)
{
    Words words = allWords;
    if (words.size() >= 2 && words[words.size() - 2] == "within") {
        if (!ParseTime(words.back(), &pExpectation->nWithinMs)) {
            return Fail(pstrError, "within takes a time such as 2s or 500ms, not " + words.back());
        }
        words.resize(words.size() - 2);
    }
    auto const *const pWhat =
        std::find_if(std::begin(g_whats), std::end(g_whats),
                     [&](WhatRow const &row) { return !words.empty() && words[0] == row.pszName; });
    if (pWhat == std::end(g_whats)) {
        return Fail(pstrError, words.empty() ? "there is nothing to expect"
                                             : "nobody can expect " + words[0] + ", help tells");
    }
    pExpectation->eKind = pWhat->eKind;
    if (pWhat->eKind == Expectation::eEVENT && !pWhat->pszEvent) {
        return ParseEvent(words, pExpectation, pstrError);
    }
    if (pWhat->fText) {
        pExpectation->strText = Join(words, 1);
        return !pExpectation->strText.empty() || pWhat->eKind == Expectation::eENTRY ||
               Fail(pstrError, words[0] + " takes " + pWhat->pszArguments);
    }
    pExpectation->strText = pWhat->pszEvent;
    return ParseBy(words, pExpectation, pstrError);
}

bool Meets(Expectation const &expectation, CSoftDevice &device, std::size_t nDevice,
           CEventTrail const &trail)
{
    LinkTime const deadline = trail.Begun() + std::chrono::milliseconds(expectation.nWithinMs);
    switch (expectation.eKind) {
    case Expectation::eENTRY:
        return device.WaitForEntry(expectation.strText, MillisecondsUntil(deadline));
    case Expectation::eGONE:
        return trail.WaitUntil(deadline, [&] { return !device.HasEntry(expectation.strText); });
    case Expectation::eLINK:
        return trail.WaitUntil(deadline, [&] { return !device.Status().links.empty(); });
    case Expectation::eSUBSCRIPTION:
        return trail.WaitUntil(deadline,
                               [&] { return HasSubscription(device, expectation.strText); });
    case Expectation::eEVENT:
        break;
    }
    auto fields = expectation.fields;
    if (!expectation.strClaimer.empty()) {
        fields.emplace_back("link", LinkNumber(device, expectation.strClaimer));
    }
    return trail.WaitFor(nDevice, deadline, [&](DeviceEvent const &event) {
        return DeviceEventName(event.eKind) == expectation.strText &&
               std::all_of(fields.begin(), fields.end(), [&](auto const &field) {
                   return HasField(event, field.first, field.second);
               });
    });
}

std::vector<std::string> ExpectationHelp()
{
    std::vector<std::string> lines;
    for (WhatRow const &row : g_whats) {
        std::string strLine = std::string("    ") + row.pszName + " " + row.pszArguments;
        strLine.resize(std::max<std::size_t>(strLine.size() + 1, 32), ' ');
        lines.push_back(strLine + row.pszHelp);
    }
    return lines;
}
