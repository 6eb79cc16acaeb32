// A client of the first version, compiled as C against the header that came with it (first/). Neither is changed
// any more: it has to run with every later module.

#include "first/qoma_notify.h"

#include <stdio.h>
#include <string.h>

const char *first_client(uint32_t port, void (*pick)(void));

#define EXPECT(condition)                                                                          \
    if (!(condition)) {                                                                            \
        return #condition;                                                                         \
    }

static int g_user;
static qoma_notification g_called;

static void QOMA_CALL on_notify(void *user, const qoma_notification *notification)
{
    if (user == &g_user && notification->size >= sizeof g_called) {
        g_called = *notification;
    }
}

// Null, or what did not hold. pick has somebody pick the first entry.
const char *first_client(uint32_t port, void (*pick)(void))
{
    struct {
        qoma_notification record;
        unsigned char behind[64];
    } heard;
    qoma_agent asking, called;
    uint32_t instance = 0xFFFFFFFF;

    EXPECT(qoma_version() >= QOMA_VERSION && qoma_version() >> 16 == QOMA_VERSION >> 16);
    EXPECT(strcmp(qoma_strerror(QOMA_E_NOT_CONNECTED), "not connected") == 0);
    EXPECT(qoma_create(on_notify, &g_user, &called) == QOMA_OK);
    EXPECT(qoma_connect(called, NULL, port, QOMA_LOCAL) == QOMA_OK);
    EXPECT(qoma_add(called, QOMA_FLAG_FAX, NULL, NULL) == QOMA_OK);

    EXPECT(qoma_create(NULL, NULL, &asking) == QOMA_OK);
    EXPECT(qoma_connect(asking, "127.0.0.1", port, QOMA_NETWORK) == QOMA_OK);
    EXPECT(qoma_connect(asking, "127.0.0.1", port, QOMA_NETWORK) == QOMA_E_ALREADY_CONNECTED);
    EXPECT(qoma_add(asking, QOMA_FLAG_SELECT, "Old Text", &instance) == QOMA_OK);
    EXPECT(qoma_modify(asking, "Old Text", "First Client", &instance) == QOMA_OK);
    EXPECT(instance <= 32767);
    pick();
    memset(&heard, 0xA5, sizeof heard);
    heard.record.size = sizeof heard.record;
    EXPECT(qoma_poll(asking, 30000, &heard.record) == QOMA_OK);
    EXPECT(heard.record.size == sizeof heard.record && heard.behind[0] == 0xA5);
    EXPECT(heard.record.kind == QOMA_KIND_SELECT && heard.record.notify_code == 7);
    EXPECT(heard.record.value == 0 && heard.record.word == 0);
    EXPECT(heard.record.lost == 0 && heard.record.lost_kinds == 0);
    EXPECT(strncmp(heard.record.option, "First Client;NETADDR=", 21) == 0);
    EXPECT(strchr(heard.record.sender_address, '.') != NULL);
    EXPECT(qoma_poll(asking, 0, &heard.record) == QOMA_E_NOTHING);
    EXPECT(qoma_delete(asking, QOMA_FLAG_SELECT, "First Client", instance) == QOMA_OK);
    EXPECT(qoma_restart(asking) == QOMA_OK);
    EXPECT(qoma_poll(asking, 30000, &heard.record) == QOMA_OK);
    EXPECT(heard.record.kind == QOMA_KIND_RECOVERED);
    EXPECT(qoma_discover(asking, "there/is/no/such/file", &instance) == QOMA_E_OPEN_FAILED);
    EXPECT(qoma_disconnect(asking) == QOMA_OK);
    EXPECT(qoma_poll(asking, QOMA_FOREVER, &heard.record) == QOMA_E_NOT_CONNECTED);
    EXPECT(qoma_destroy(asking) == QOMA_OK && qoma_destroy(called) == QOMA_OK);
    EXPECT(qoma_destroy(asking) == QOMA_E_INVALID_HANDLE);
    return g_called.size != 0 ? "called by what did not happen" : NULL;
}
