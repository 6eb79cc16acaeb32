// The functions of C with any handles, in any order: each is answered with a result that fits a model of which
// handles are open, which of those connected, and which have a callback. Input: function and handle (1 byte),
// arguments (1 byte, or a text with its length in 2 bytes).

#include "capi/qoma_notify.h"
#include "fuzz/agent_double.h"

#include <cstring>
#include <map>
#include <vector>

namespace {

struct Known {
    bool fCallback;
    bool fConnected;
};

std::map<qoma_agent, Known> g_open;
std::vector<qoma_agent> g_ever;
qoma_agent g_always; // open for the whole run

void QOMA_CALL OnNotify(void *pvUser, qoma_notification const *pNotification)
{
    Must(pvUser == &g_open && pNotification->size == sizeof *pNotification, "the user comes whole");
    Must(qoma_destroy(nullptr) == QOMA_E_INVALID_HANDLE, "a handle comes before a callback");
    Must(qoma_destroy(g_always) == QOMA_E_NOT_SUPPORTED, "no callback waits for callbacks");
}

qoma_agent AnyHandle(unsigned n)
{
    if (n < g_ever.size()) {
        return g_ever[g_ever.size() - 1 - n];
    }
    return reinterpret_cast<qoma_agent>(static_cast<std::uintptr_t>(n) * 0x01000193u);
}

void Create(bool fCallback)
{
    qoma_agent agent = nullptr;
    qoma_result const result = qoma_create(fCallback ? OnNotify : nullptr, &g_open, &agent);
    Must(result == QOMA_OK && agent != nullptr && !g_open.contains(agent), "a handle is new");
    g_open[agent] = {fCallback, false};
    g_ever.push_back(agent);
}

// What a function may say that is not about the handle.
void Check(qoma_agent agent, qoma_result result, bool fNeedsLink)
{
    auto const it = g_open.find(agent);
    Must((result == QOMA_E_INVALID_HANDLE) == (it == g_open.end()), "only open handles are taken");
    if (it != g_open.end() && fNeedsLink) {
        Must((result == QOMA_E_NOT_CONNECTED) == !it->second.fConnected, "a link is needed");
    }
    Must(std::strlen(qoma_strerror(result)) > 0, "a result has words");
}

void Poll(qoma_agent agent, unsigned nSize)
{
    std::vector<char> room(1024, '\x5A');
    auto *const pHeard = reinterpret_cast<qoma_notification *>(room.data());
    pHeard->size = nSize * 8;
    qoma_result const result = qoma_poll(agent, 0, pHeard);
    Check(agent, result, false);
    std::size_t const cbWritten = result == QOMA_OK ? nSize * 8 : sizeof pHeard->size;
    for (std::size_t n = cbWritten; n < room.size(); ++n) {
        Must(room[n] == '\x5A', "nothing is written behind the record");
    }
    Must(result != QOMA_OK || (nSize * 8 >= 656 && pHeard->kind == QOMA_KIND_RECOVERED),
         "what came was posted");
    if (g_open.contains(agent) && g_open[agent].fCallback && nSize * 8 >= 656) {
        Must(result == QOMA_E_NOT_SUPPORTED, "who has a callback does not ask");
    }
}

void Step(CFuzzInput &input)
{
    unsigned const nWhat = input.Byte();
    qoma_agent const agent = AnyHandle(nWhat >> 4);
    bool const fOpen = g_open.contains(agent);
    uint32_t dw = input.Byte();
    intptr_t nDescriptor = 0;
    std::string strText;
    qoma_result result = QOMA_OK;
    switch (nWhat & 15) {
    case 0:
    case 1:
        if (g_open.size() < 64) {
            Create((nWhat & 1) != 0);
        }
        return;
    case 2:
        result = qoma_destroy(agent);
        Check(agent, result, false);
        g_open.erase(agent);
        return;
    case 3:
        result = qoma_connect(agent, "x", dw, (dw & 1) != 0 ? QOMA_LOCAL : 2);
        Check(agent, result, false);
        if (fOpen && (dw & 1) != 0) {
            bool &fConnected = g_open[agent].fConnected;
            Must(result == (fConnected ? QOMA_E_ALREADY_CONNECTED : QOMA_OK), "once");
            fConnected = true;
        }
        return;
    case 4:
        Check(agent, qoma_disconnect(agent), true);
        if (fOpen) {
            g_open[agent].fConnected = false;
        }
        return;
    case 5:
        Check(agent, qoma_restart(agent), true);
        return;
    case 6:
        strText = input.Chunk();
        Check(agent,
              qoma_add(agent, dw, dw & 16 ? nullptr : strText.c_str(), dw & 32 ? nullptr : &dw),
              true);
        return;
    case 7:
        strText = input.Chunk();
        Check(agent, qoma_delete(agent, dw, dw & 16 ? nullptr : strText.c_str(), dw), true);
        return;
    case 8:
        strText = input.Chunk();
        Check(agent, qoma_modify(agent, strText.c_str(), dw & 1 ? nullptr : "new", &dw), true);
        return;
    case 9:
        Check(agent,
              qoma_discover(agent, dw & 1 ? nullptr : "there/is/none", dw & 2 ? nullptr : &dw),
              true);
        return;
    case 10:
        Check(agent, qoma_descriptor(agent, dw & 1 ? nullptr : &nDescriptor), false);
        return;
    default:
        Poll(agent, dw % 128);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *pData, std::size_t cbData)
{
    g_library = {};
    if (g_always == nullptr) {
        Must(qoma_create(nullptr, nullptr, &g_always) == QOMA_OK, "there is room for one");
    }
    CFuzzInput input(pData, cbData);
    while (!input.IsEmpty()) {
        Step(input);
    }
    for (auto const &[agent, known] : std::exchange(g_open, {})) {
        Must(qoma_destroy(agent) == QOMA_OK, "what is open can be ended");
    }
    g_ever.clear();
    return 0;
}
