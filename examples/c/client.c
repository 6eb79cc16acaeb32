// Hears of each pick of "Paper Archive" on a device's panel, until Enter. usage: client [ADDRESS [PORT]]
#include <qoma_notify.h>

#include <stdio.h>
#include <stdlib.h>

static qoma_agent agent;

static qoma_result subscribe(void)
{
    uint32_t instance;
    return qoma_add(agent, QOMA_FLAG_SELECT, "Paper Archive", &instance);
}

static void QOMA_CALL on_notify(void *user, const qoma_notification *heard)
{
    // A thread of the agent's: copy what you need and return soon.
    FILE *const out = user;
    fprintf(out, "kind %d: %s\n", (int)heard->kind, heard->option);
    fflush(out);
    if (heard->kind == QOMA_KIND_RECOVERED) {
        subscribe(); // the device has forgotten us; if it goes once more, so we hear of it once more
    }
}

int main(int argc, char **argv)
{
    const char *const address = argc > 1 ? argv[1] : "127.0.0.1";
    const uint32_t port = argc > 2 ? (uint32_t)strtoul(argv[2], NULL, 10) : QOMA_NO_PORT;
    qoma_result result = qoma_create(on_notify, stdout, &agent);
    if (result == QOMA_OK) {
        result = qoma_connect(agent, address, port, QOMA_NETWORK);
    }
    if (result == QOMA_OK) {
        result = subscribe();
    }
    if (result == QOMA_OK) {
        getchar();
    } else {
        fprintf(stderr, "client: %s (%u)\n", qoma_strerror(result), (unsigned)result);
    }
    qoma_destroy(agent); // which disconnects
    return result == QOMA_OK ? 0 : 1;
}
