// tracedeck: the trace viewer. Owns the window whose title the registry names, and shows each line that
// trace clients send to it; ends on Ctrl-C.

#include "platform/console.h"
#include "platform/file.h"
#include "platform/sync.h"
#include "platform/window.h"
#include "tools/showable.h"
#include "tools/usage.h"

#include <atomic>
#include <cstdio>
#include <string>
#include <string_view>

namespace {

std::atomic<HWND> g_hWnd{nullptr}; // for the console's thread

// Where the lines go.
struct DeckType {
    HANDLE hFile = INVALID_HANDLE_VALUE;
    bool fBroken = false; // nobody reads us any more, or the disk is full
};

// The line of a message: up to its terminator, and without the line end that some senders leave.
std::string_view LineOf(COPYDATASTRUCT const *pData)
{
    std::string_view str(static_cast<char const *>(pData->lpData), pData->cbData);
    str = str.substr(0, str.find('\0'));
    std::size_t const nLast = str.find_last_not_of("\r\n");
    return str.substr(0, nLast == std::string_view::npos ? 0 : nLast + 1);
}

// At the end each time, since others may write to the file too.
bool Append(HANDLE hFile, std::string const &strLine)
{
    DWORD cbWritten = 0;
    SetFilePointer(hFile, 0, nullptr, FILE_END);
    return WriteFile(hFile, strLine.data(), static_cast<DWORD>(strLine.size()), &cbWritten,
                     nullptr);
}

bool Show(DeckType const &deck, std::string_view str)
{
    std::string const strLine = Showable(str) + "\n";
    bool const fShown = std::fwrite(strLine.data(), 1, strLine.size(), stdout) == strLine.size() &&
                        std::fflush(stdout) == 0;
    bool const fFiled = deck.hFile == INVALID_HANDLE_VALUE || Append(deck.hFile, strLine);
    return fShown && fFiled;
}

LRESULT OnCopyData(void *pContext, COPYDATASTRUCT const *pData)
{
    auto *pDeck = static_cast<DeckType *>(pContext);
    try {
        if (!pDeck->fBroken && !Show(*pDeck, LineOf(pData))) {
            pDeck->fBroken = true;
            PlatCloseViewerWindow(g_hWnd);
        }
    } catch (std::bad_alloc const &) {
        return FALSE; // this line is lost, the next may fit
    }
    return TRUE;
}

BOOL WINAPI OnConsole(DWORD)
{
    PlatCloseViewerWindow(g_hWnd);
    return TRUE;
}

int Fail(std::string const &strWhat)
{
    std::fprintf(stderr, "tracedeck: %s\n", strWhat.c_str());
    return eXC_FAILED;
}

int RunDeck(std::string const &strTitle, DeckType &deck)
{
    HWND const hWnd = PlatCreateViewerWindow(strTitle.c_str(), OnCopyData, &deck);
    if (hWnd == nullptr) {
        return Fail(GetLastError() == ERROR_ALREADY_EXISTS
                        ? "the title \"" + Showable(strTitle) + "\" is in use by another viewer"
                        : "cannot make the window, error " + std::to_string(GetLastError()));
    }
    g_hWnd = hWnd;
    SetConsoleCtrlHandler(OnConsole, TRUE);
    std::fprintf(stderr, "tracedeck: showing what is sent to \"%s\"; Ctrl-C ends\n",
                 Showable(strTitle).c_str());
    BOOL const fOrderly = PlatRunViewerWindow(hWnd);
    DWORD const dwError = GetLastError();
    SetConsoleCtrlHandler(OnConsole, FALSE);
    PlatDestroyViewerWindow(hWnd);
    if (!fOrderly) {
        return Fail("the window broke, error " + std::to_string(dwError));
    }
    return deck.fBroken ? Fail("cannot write the lines any more") : eXC_DONE;
}

} // namespace

int main(int argc, char **argv)
{
    // Not every runtime leaves it so when it is a pipe.
    std::setvbuf(stderr, nullptr, _IONBF, 0);
    std::string strTitle = "TraceDeck";
    std::string strOut;
    CLI::App app("Shows the lines that trace clients send to the window of a title.", "tracedeck");
    app.add_option("--title", strTitle, "title that the clients look for")->capture_default_str();
    app.add_option("--out", strOut, "file that gets the lines too, behind what it holds");
    if (auto const nExitCode = ParseCommandLine(app, argc, argv)) {
        return *nExitCode;
    }
    DeckType deck;
    if (!strOut.empty()) {
        deck.hFile = CreateFileA(strOut.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                 nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (deck.hFile == INVALID_HANDLE_VALUE) {
            return Fail("cannot open " + Showable(strOut) + ", error " +
                        std::to_string(GetLastError()));
        }
    }
    int const nExit = RunDeck(strTitle, deck);
    if (deck.hFile != INVALID_HANDLE_VALUE) {
        CloseHandle(deck.hFile);
    }
    return nExit;
}
