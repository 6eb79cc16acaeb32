#pragma once
/// @file
/// The numbers of the device link. docs/device-link.md tells what each frame carries; a change here
/// that an older end would misread needs a new kLinkVersion.
#include "platform/base.h"

constexpr DWORD kLinkMagic = 0x4B4C4451;   ///< "QDLK" as it lies on the wire
constexpr WORD kLinkVersion = 1;           ///< both ends must agree
constexpr WORD kLinkDefaultPort = 19290;   ///< the device's TCP port
constexpr DWORD kLinkMaxBody = 64 * 1024;  ///< bytes of a frame after its length word
constexpr DWORD kLinkMaxValue = 32 * 1024; ///< bytes of an object's value
constexpr DWORD kLinkMaxOid = 14;          ///< bytes of an object identifier
constexpr DWORD kLinkMaxAddressText = 63;  ///< bytes of a local link's address text
constexpr DWORD kLinkPingMs = 5000;        ///< the client sends eLK_PING this often
constexpr DWORD kLinkSilenceMs = 15000; ///< an end that hears nothing for so long gives the link up

/// Kinds of a frame. An answer has the kind of its request with kLinkAnswerBit, and its number.
enum LinkKind : BYTE {
    eLK_HELLO = 1,
    eLK_GET_DEVICE_ID = 2,
    eLK_GET = 3,
    eLK_SET = 4,
    eLK_TRAP = 5,
    eLK_UNTRAP = 6,
    eLK_PING = 7,
    eLK_TRAP_VALUE = 16, ///< from the device, unasked, number 0
};
constexpr BYTE kLinkAnswerBit = 0x80; ///< of the kind of an answer

/// What a client says in eLK_HELLO that it wants.
enum LinkUse : BYTE {
    eLU_PROBE = 0, ///< only to know whether the device answers; the device closes after the answer
    eLU_LOCAL = 3,
    eLU_NETWORK = 4,
};

/// Data types of objects.
enum LinkDataType : BYTE {
    eLD_WORD = 1,   ///< 4 bytes, little-endian on the wire
    eLD_TEXT = 4,   ///< bytes without a NUL at the end
    eLD_BINARY = 5, ///< bytes
    eLD_BITS = 8,   ///< as eLD_WORD
};

/// The first word of every answer.
enum LinkResult : DWORD {
    eLR_OK = 0,
    eLR_REFUSED = 5,
    eLR_WRONG_LENGTH = 24,
    eLR_FAILED = 31,
    eLR_BAD_REQUEST = 87,
    eLR_BUSY = 170,
    eLR_NO_SUCH_OBJECT = 1168,
    eLR_VERSION_MISMATCH = 1306,
    eLR_WRONG_TYPE = 1629,
    eLR_FULL = 1816,
};
