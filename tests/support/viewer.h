// A trace viewer's window.

#pragma once

#include "platform/window.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A viewer on a thread of its own that answers the length of a message and keeps it.
class CTestViewer {
public:
    explicit CTestViewer(std::string strTitle)
    {
        std::promise<HWND> made;
        m_thread = std::thread([&] {
            HWND const hWnd = PlatCreateViewerWindow(strTitle.c_str(), OnCopyData, this);
            made.set_value(hWnd);
            EXPECT_TRUE(PlatRunViewerWindow(hWnd));
            PlatDestroyViewerWindow(hWnd);
        });
        m_hWnd = made.get_future().get();
    }
    ~CTestViewer()
    {
        PlatCloseViewerWindow(m_hWnd);
        m_thread.join();
    }
    std::vector<std::string> Messages()
    {
        std::lock_guard const lock(m_mutex);
        return m_astr;
    }
    HWND m_hWnd;

private:
    static LRESULT OnCopyData(void *pContext, COPYDATASTRUCT const *pData)
    {
        auto *pThis = static_cast<CTestViewer *>(pContext);
        std::lock_guard const lock(pThis->m_mutex);
        pThis->m_astr.emplace_back(static_cast<char const *>(pData->lpData), pData->cbData);
        return static_cast<LRESULT>(pData->cbData + pData->dwData);
    }
    std::mutex m_mutex;
    std::vector<std::string> m_astr;
    std::thread m_thread;
};
