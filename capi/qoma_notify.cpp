// The functions of the interface. What they have to tell goes out as a result; an exception never does.

#include "capi/qoma_notify.h"

#include "agent/QOMANoAg.h"
#include "capi/client_table.h"
#include "capi/foreign_client.h"
#include "dolrtl/QOMADolC.h"

#include <cstddef>
#include <new>

static_assert(QOMA_VERSION == QOMA_PROJECT_VERSION);
// What came with the first version stays where it is, and the numbers are the agent's.
static_assert(offsetof(qoma_notification, option) == 28 && sizeof(qoma_notification) >= 656);
static_assert(sizeof(qoma_notification::option) > 349 && QOMA_NO_PORT == kNotifyNoPort);
static_assert(QOMA_KIND_FAX == eCT_FAX_UPLOAD_NOTIFY && QOMA_FLAG_FAX == eNF_FAX_UPLOAD &&
              QOMA_E_DEVICE_FULL == eDR_DEVICE_FULL);

namespace {

constexpr DWORD kcbFirstRecord = 656;

template <class Work>
qoma_result NoException(Work fnWork) noexcept
{
    try {
        return fnWork();
    } catch (std::bad_alloc const &) {
        return QOMA_E_NO_MEMORY;
    } catch (...) {
        return QOMA_E_INTERNAL;
    }
}

// Work with the client behind a handle.
template <class Work>
qoma_result WithClient(qoma_agent agent, Work fnWork) noexcept
{
    return NoException([&]() -> qoma_result {
        CClientRef const client(agent);
        return client ? fnWork(*client.operator->()) : QOMA_E_INVALID_HANDLE;
    });
}

// The same for what waits for callbacks.
template <class Work>
qoma_result OutsideCallbacks(qoma_agent agent, Work fnWork) noexcept
{
    return WithClient(agent, [&](CForeignClient &client) -> qoma_result {
        return CForeignClient::IsInCallback() ? QOMA_E_NOT_SUPPORTED : fnWork(client);
    });
}

} // namespace

extern "C" {

uint32_t QOMA_CALL qoma_version(void)
{
    return QOMA_VERSION;
}

qoma_result QOMA_CALL qoma_create(qoma_callback callback, void *user, qoma_agent *agent)
{
    return NoException([&]() -> qoma_result {
        if (agent == nullptr) {
            return QOMA_E_INVALID_PARAMETER;
        }
        *agent = nullptr;
        qoma_result result = QOMA_OK;
        *agent = OpenClient(callback, user, &result);
        return result;
    });
}

qoma_result QOMA_CALL qoma_destroy(qoma_agent agent)
{
    return NoException([&]() -> qoma_result {
        CClientRef client(agent);
        if (!client) {
            return QOMA_E_INVALID_HANDLE;
        }
        if (CForeignClient::IsInCallback()) {
            return QOMA_E_NOT_SUPPORTED;
        }
        if (!client.Retire()) {
            return QOMA_E_INVALID_HANDLE;
        }
        client->Close();
        return QOMA_OK;
    });
}

qoma_result QOMA_CALL qoma_connect(qoma_agent agent, char const *address, uint32_t port,
                                   uint32_t way)
{
    return OutsideCallbacks(agent, [&](CForeignClient &client) -> qoma_result {
        if (way != QOMA_LOCAL && way != QOMA_NETWORK) {
            return QOMA_E_INVALID_PARAMETER;
        }
        return client.Connect(address, port, way == QOMA_NETWORK);
    });
}

qoma_result QOMA_CALL qoma_disconnect(qoma_agent agent)
{
    return OutsideCallbacks(agent, [](CForeignClient &client) { return client.Disconnect(); });
}

qoma_result QOMA_CALL qoma_restart(qoma_agent agent)
{
    return OutsideCallbacks(agent, [](CForeignClient &client) { return client.Restart(); });
}

qoma_result QOMA_CALL qoma_add(qoma_agent agent, uint32_t flags, char const *option,
                               uint32_t *instance)
{
    return WithClient(agent, [&](CForeignClient &client) -> qoma_result {
        DWORD dwInstance = 0;
        DWORD const dwResult =
            client.Agent().Add(instance != nullptr ? &dwInstance : nullptr, flags, option);
        if (instance != nullptr && (flags & QOMA_FLAG_SELECT) != 0) {
            *instance = dwInstance;
        }
        return dwResult;
    });
}

qoma_result QOMA_CALL qoma_delete(qoma_agent agent, uint32_t flags, char const *option,
                                  uint32_t instance)
{
    return WithClient(agent, [&](CForeignClient &client) {
        return client.Agent().Delete(instance, flags, option);
    });
}

qoma_result QOMA_CALL qoma_modify(qoma_agent agent, char const *old_option, char const *new_option,
                                  uint32_t *instance)
{
    return WithClient(agent, [&](CForeignClient &client) -> qoma_result {
        DWORD dwInstance = instance != nullptr ? *instance : 0;
        DWORD const dwResult = client.Agent().Modify(instance != nullptr ? &dwInstance : nullptr,
                                                     old_option, new_option);
        if (instance != nullptr) {
            *instance = dwInstance;
        }
        return dwResult;
    });
}

qoma_result QOMA_CALL qoma_discover(qoma_agent agent, char const *target, uint32_t *sequence)
{
    return WithClient(agent, [&](CForeignClient &client) -> qoma_result {
        DWORD dwSequence = 0;
        DWORD const dwResult = client.Agent().InitiateSrvQDiscovery(
            sequence != nullptr ? &dwSequence : nullptr, target);
        if (sequence != nullptr) {
            *sequence = dwSequence;
        }
        return dwResult;
    });
}

qoma_result QOMA_CALL qoma_poll(qoma_agent agent, uint32_t timeout_ms,
                                qoma_notification *notification)
{
    return WithClient(agent, [&](CForeignClient &client) -> qoma_result {
        if (notification == nullptr || notification->size < kcbFirstRecord) {
            return QOMA_E_INVALID_PARAMETER;
        }
        return client.Poll(timeout_ms, notification);
    });
}

qoma_result QOMA_CALL qoma_descriptor(qoma_agent agent, intptr_t *descriptor)
{
    return WithClient(agent, [&](CForeignClient &client) -> qoma_result {
        return descriptor != nullptr ? client.Descriptor(descriptor) : QOMA_E_INVALID_PARAMETER;
    });
}

} // extern "C"
