/// @file
/// The result codes of the foundation and the event manager.
///
/// Every operation of these folders that can fail returns one of them as a DWORD, 0 for success. They
/// are a set of their own: the operations of CNotifyAgent return the system's error numbers instead.
/// 10, 13, 17 and 20 are not assigned; the numbers appear in stored logs, so none is ever moved.

#pragma once

#include "platform/base.h"

/// What each means, wherever it is returned.
enum EGResult : DWORD {
    eGE_OK = 0,
    eGE_NOT_IN_QUEUE = 1,       ///< the node is not in the list
    eGE_MUTEX_CREATE = 2,       ///< no handle, for any reason but an existing name
    eGE_EVENT_CREATE = 3,       ///< no handle
    eGE_MUTEX_CLOSE = 4,        ///< CloseHandle failed
    eGE_MUTEX_OPEN = 5,         ///< no handle
    eGE_EVENT_CLOSE = 6,        ///< CloseHandle failed
    eGE_BAD_STATE = 7,          ///< a state machine met a state that it does not know
    eGE_OUT_OF_MEMORY = 8,      ///< text or node could not be had
    eGE_NULL_ARGUMENT = 9,      ///< a null pointer where one is needed
    eGE_THREAD_PRIORITY = 11,   ///< SetThreadPriority failed
    eGE_QUEUE_CLOSED = 12,      ///< the queue takes no more nodes
    eGE_FILE_OPEN = 14,         ///< no file name, or the system refused
    eGE_FILE_READ = 15,         ///< failed, or fewer bytes than asked for
    eGE_FILE_WRITE = 16,        ///< failed, or fewer bytes taken than given
    eGE_FILE_NOT_OPEN = 18,     ///< an operation on a file that is not open
    eGE_FILE_ALREADY_OPEN = 19, ///< opening a file object that is open
    eGE_MUTEX_EXISTS = 21,      ///< no handle because the name exists
    eGE_FILE_SEEK = 22,         ///< moving the file pointer failed
};
