// The results in words.

#include "capi/qoma_notify.h"

namespace {

struct ResultText {
    qoma_result result;
    char const *pszText;
};

constexpr ResultText kResultTexts[] = {
    {QOMA_OK, "no error"},
    {QOMA_E_REFUSED, "the device refused"},
    {QOMA_E_INVALID_HANDLE, "no handle of an agent"},
    {QOMA_E_NO_MEMORY, "not enough memory"},
    {QOMA_E_BAD_ANSWER, "the device's answer makes no sense"},
    {QOMA_E_WRONG_LENGTH, "too long for the device"},
    {QOMA_E_WRITE_FAULT, "the job could not be written whole"},
    {QOMA_E_DEVICE_FAILED, "the device failed"},
    {QOMA_E_NOT_SUPPORTED, "not supported here"},
    {QOMA_E_NOT_SUBSCRIBED, "not subscribed"},
    {QOMA_E_INVALID_PARAMETER, "invalid parameter"},
    {QOMA_E_OPEN_FAILED, "the target could not be opened"},
    {QOMA_E_TIMEOUT, "no answer from the device in time"},
    {QOMA_E_BUSY, "another host holds it"},
    {QOMA_E_NOTHING, "nothing came in time"},
    {QOMA_E_NO_SUCH_OBJECT, "the device has no such object"},
    {QOMA_E_BAD_ADDRESS, "bad address"},
    {QOMA_E_CONNECT_REFUSED, "nothing listens at that address and port"},
    {QOMA_E_NOT_STARTED, "the link was not started"},
    {QOMA_E_UNREACHABLE, "no way to the device"},
    {QOMA_E_LINK_LOST, "the link is lost"},
    {QOMA_E_ALREADY_STARTED, "the link was started before"},
    {QOMA_E_ALREADY_CONNECTED, "already connected"},
    {QOMA_E_VERSION_MISMATCH, "the device speaks another version of the protocol"},
    {QOMA_E_WRONG_PRODUCT_LINE, "a device of another product line"},
    {QOMA_E_INTERNAL, "a fault of the module's"},
    {QOMA_E_NO_RESOURCES, "too many agents, or no descriptor"},
    {QOMA_E_WRONG_TYPE, "wrong data type for the object"},
    {QOMA_E_DEVICE_FULL, "the panel takes no more entries"},
    {QOMA_E_NOT_CONNECTED, "not connected"},
};

} // namespace

extern "C" char const *QOMA_CALL qoma_strerror(qoma_result result)
{
    for (ResultText const &text : kResultTexts) {
        if (text.result == result) {
            return text.pszText;
        }
    }
    return "a code of the access library";
}
