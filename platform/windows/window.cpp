#include "platform/window.h"

#include <memory>
#include <new>

namespace {

constexpr char kszClass[] = "QomaViewerWindow";

struct ViewerType {
    PlatCopyDataFn pfnCopyData;
    void *pContext;
};

LRESULT CopyData(HWND hWnd, COPYDATASTRUCT const *pData)
{
    auto const *pViewer =
        reinterpret_cast<ViewerType const *>(GetWindowLongPtrA(hWnd, GWLP_USERDATA));
    if (pViewer == nullptr || pData == nullptr || pData->cbData > kcbMaxCopyData) {
        return 0;
    }
    return pViewer->pfnCopyData(pViewer->pContext, pData);
}

LRESULT CALLBACK ViewerProc(HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam)
{
    switch (nMessage) {
    case WM_COPYDATA:
        return CopyData(hWnd, reinterpret_cast<COPYDATASTRUCT const *>(lParam));
    case WM_CLOSE:
        // The window itself goes with PlatDestroyViewerWindow.
        PostQuitMessage(0);
        return 0;
    default:
        return DefWindowProcA(hWnd, nMessage, wParam, lParam);
    }
}

BOOL RegisterViewerClass()
{
    WNDCLASSA wc = {};
    wc.lpfnWndProc = ViewerProc;
    wc.hInstance = GetModuleHandleA(nullptr);
    wc.lpszClassName = kszClass;
    return RegisterClassA(&wc) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
}

} // namespace

HWND PlatCreateViewerWindow(char const *pszTitle, PlatCopyDataFn pfnCopyData, void *pContext)
{
    if (pszTitle == nullptr || pfnCopyData == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (FindWindowA(nullptr, pszTitle) != nullptr) {
        SetLastError(ERROR_ALREADY_EXISTS);
        return nullptr;
    }
    std::unique_ptr<ViewerType> pViewer(new (std::nothrow) ViewerType{pfnCopyData, pContext});
    if (!pViewer || !RegisterViewerClass()) {
        return nullptr;
    }
    HWND const hWnd = CreateWindowExA(0, kszClass, pszTitle, WS_OVERLAPPEDWINDOW, CW_USEDEFAULT,
                                      CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr,
                                      GetModuleHandleA(nullptr), nullptr);
    if (hWnd != nullptr) {
        SetWindowLongPtrA(hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(pViewer.release()));
    }
    return hWnd;
}

BOOL PlatRunViewerWindow(HWND hWnd)
{
    DWORD const idThread = GetWindowThreadProcessId(hWnd, nullptr);
    if (idThread != GetCurrentThreadId()) {
        SetLastError(idThread == 0 ? ERROR_INVALID_WINDOW_HANDLE : ERROR_INVALID_THREAD_ID);
        return FALSE;
    }
    MSG msg;
    BOOL nResult;
    while ((nResult = GetMessageA(&msg, nullptr, 0, 0)) > 0) {
        DispatchMessageA(&msg);
    }
    return nResult == 0;
}

void PlatCloseViewerWindow(HWND hWnd)
{
    PostMessageA(hWnd, WM_CLOSE, 0, 0);
}

void PlatDestroyViewerWindow(HWND hWnd)
{
    auto *pViewer = reinterpret_cast<ViewerType *>(GetWindowLongPtrA(hWnd, GWLP_USERDATA));
    if (DestroyWindow(hWnd)) {
        delete pViewer;
    }
}
