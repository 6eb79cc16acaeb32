// A trace viewer in the test's own process: a window on a thread of its own that keeps what it is sent.

#pragma once

#include "platform/process.h"
#include "platform/window.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

class CTestViewer {
public:
    CTestViewer()
    {
        std::promise<HWND> made;
        m_thread = std::thread([&] {
            HWND const hWnd = PlatCreateViewerWindow(m_strTitle.c_str(), OnCopyData, this);
            made.set_value(hWnd);
            EXPECT_TRUE(hWnd != nullptr && PlatRunViewerWindow(hWnd));
            PlatDestroyViewerWindow(hWnd);
        });
        m_hWnd = made.get_future().get();
    }
    // Closes the window. @return the payloads, each with the terminator that it came with.
    std::vector<std::string> End()
    {
        PlatCloseViewerWindow(m_hWnd);
        m_thread.join();
        return m_lines;
    }

    std::string const m_strTitle = "qoma test viewer " + std::to_string(GetCurrentProcessId());

private:
    static LRESULT OnCopyData(void *pContext, COPYDATASTRUCT const *pData)
    {
        static_cast<CTestViewer *>(pContext)->m_lines.emplace_back(
            static_cast<char const *>(pData->lpData), pData->cbData);
        return static_cast<LRESULT>(pData->dwData);
    }

    std::vector<std::string> m_lines; // the window's thread's own until End
    HWND m_hWnd = nullptr;
    std::thread m_thread;
};
