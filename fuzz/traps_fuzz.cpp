// Trap values of any bytes, as the agent reads them out of an access library that says anything. The client
// hears what the values mean; a press of the button is claimed, put out, and freed again when it was ours.
// Input: the code that ends the drain (1 byte), then traps: number, whether a claim succeeds (1 byte each),
// length (2 bytes), bytes.

#include "fuzz/agent_double.h"

#include <cstring>

namespace {

constexpr std::size_t kcbValue = 349;
enum : unsigned { eSELECT = 1, eFEEDER = 3, eBUTTON = 4, eTOKEN = 5, eFAX = 7, eCOUNT = 8 };

std::string const g_strFree(16, '\0');
std::string const g_strOff("\1\0\0\0", 4); // SCANNER_BUTTON_STATUS

// What must come of the traps: the notifications, the values that were set, the drain's result.
struct Outcome {
    CFuzzedAgent::Heard heard;
    std::vector<std::string> sets; // "claim" for a token that is not the free one
    DWORD dwResult = 0;
    bool operator==(Outcome const &) const = default;
};

Outcome Expected(std::vector<bool> const &claims)
{
    Outcome outcome;
    for (std::size_t n = 0; n < g_library.traps.size(); ++n) {
        std::string strValue = g_library.traps[n].strValue.substr(0, kcbValue);
        std::string const strText = strValue.c_str();
        strValue.resize(kcbValue);
        DWORD dwWord;
        std::memcpy(&dwWord, strValue.data(), sizeof dwWord);
        unsigned const wTrapId = g_library.traps[n].wTrapId;
        auto const Hear = [&](int eType, int nValue, DWORD dwValue, std::string const &strOption) {
            outcome.heard.push_back(CFuzzedAgent::Line(eType, nValue, dwValue, strOption));
        };
        if (wTrapId == eSELECT && strText.find("NETADDR=LINK1;") != std::string::npos) {
            Hear(eCT_SELECT_NOTIFY, 0, 0, strText);
        } else if (wTrapId == eFEEDER) {
            Hear(eCT_ADF_NOTIFY, (dwWord & 0x10) != 0, 0, "");
        } else if (wTrapId == eBUTTON && dwWord == 2) {
            outcome.sets.insert(outcome.sets.end(), {"claim", g_strOff});
            if (claims[n]) {
                outcome.sets.push_back(g_strFree);
                Hear(eCT_SCANNER_BUTTON_NOTIFY, 0, 2, "");
            }
        } else if (wTrapId == eFAX && dwWord == 6) {
            Hear(eCT_FAX_UPLOAD_NOTIFY, 0, 0, "");
        } else if (wTrapId == eTOKEN || wTrapId >= eCOUNT) {
            outcome.dwResult = ERROR_NOT_SUPPORTED;
        }
    }
    outcome.dwResult = g_library.dwEnd == eDR_NO_MORE_TRAPS ? outcome.dwResult : g_library.dwEnd;
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *pData, std::size_t cbData)
{
    static CFuzzedAgent *const s_pAgent = [] {
        auto *const pAgent = new CFuzzedAgent;
        DWORD dwInstance = 0;
        Must(pAgent->Agent().Add(&dwInstance, eNF_SELECT, "x") == 0, "an entry is subscribed");
        return pAgent;
    }();
    CFuzzInput input(pData, cbData);
    g_library = {};
    g_library.dwEnd = std::max(input.Byte(), 1u);
    std::vector<bool> claims; // by trap, whether a claim that it leads to succeeds
    while (!input.IsEmpty()) {
        unsigned const wTrapId = input.Byte();
        unsigned const nClaim = input.Byte();
        claims.push_back(nClaim % 2 == 0);
        g_library.traps.push_back(
            {wTrapId < 0xF0 ? wTrapId : wTrapId * 257, nClaim * 0x01010101u, input.Chunk()});
    }
    Outcome outcome;
    g_library.fnSetResult = [&](std::string const &strValue) -> DWORD {
        bool const bClaim = strValue.size() == g_strFree.size() && strValue != g_strFree;
        outcome.sets.push_back(bClaim ? "claim" : strValue);
        return !bClaim || claims[g_library.nRead - 1] ? 0 : eDR_BUSY;
    };
    outcome.dwResult = s_pAgent->Agent().ReadTraps();
    outcome.heard = s_pAgent->Take();
    Must(g_library.nRead == g_library.traps.size(), "every trap is read");
    Must(outcome == Expected(claims), "the traps mean what they mean, once each");
    return 0;
}
