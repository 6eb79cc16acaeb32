#include "platform/lineedit.h"

#include "platform/lock.h"
#include "platform/posix/desktop/terminal.h"

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <deque>
#include <fcntl.h>
#include <histedit.h>
#include <poll.h>
#include <unistd.h>

// The library that edits knows one thread, and waits for a key by a function of ours. So this function is
// where all that is to happen in between happens, on the thread that reads: lines of other threads are
// printed, signals answered, the end noticed. Everything that asks for it writes a byte into a pipe.

namespace {

constexpr int kHistorySize = 500;
constexpr std::size_t kMaxWaiting = 10000; // lines
constexpr int kBackgroundLookMs =
    300; // nothing tells a program that its shell has brought it forward

// What all of them begin with.
std::string CommonStart(std::vector<std::string> const &texts)
{
    std::string str = texts.front();
    for (std::string const &strOther : texts) {
        auto const [it, itOther] =
            std::mismatch(str.begin(), str.end(), strOther.begin(), strOther.end());
        str.erase(it, str.end());
    }
    return str;
}

} // namespace

class CPlatLineEditorImpl {
public:
    ~CPlatLineEditorImpl();
    bool Open(std::string const &strPrompt, CPlatLineEditor::CompleteFn complete);
    bool IsOpen() const { return m_fOpen; }
    bool Read(std::string *pstrLine);
    void Print(std::string const &strLine);
    void Close();

private:
    static CPlatLineEditorImpl *Of(EditLine *pEdit);
    static char *Prompt(EditLine *pEdit);
    static int GetChar(EditLine *pEdit, wchar_t *pch);
    static unsigned char CompleteKey(EditLine *pEdit, int nKey);

    bool WaitForForeground();
    bool StartEditing();
    bool BeginLine();
    void EndLine();
    int WaitForChar(wchar_t *pch);
    bool IsAtEnd();
    void GiveUpLine();
    void ComeBack();
    bool ReadByte(char *pch);
    void TakeWakes();
    void OnWake(int nSignal);
    std::string TakeWaiting() PLAT_REQUIRES(m_mx);
    void PrintWaiting();
    void LeaveLine();
    void ShowLine() { ::el_set(m_pEdit, EL_REFRESH); }
    unsigned char Complete();
    void Wake();

    bool m_fOpen = false;
    EditLine *m_pEdit = nullptr; // from the first line on
    History *m_pHistory = nullptr;
    std::string m_strPrompt;
    CPlatLineEditor::CompleteFn m_complete;
    int m_aWake[2] = {-1, -1};
    bool m_fAway = false; // the terminal is the shell's or another program's; the reading thread's

    CPlatMutex m_mx; // of direct output as well; a leaf
    bool m_fEditing PLAT_GUARDED_BY(m_mx) = false;
    bool m_fEnd PLAT_GUARDED_BY(m_mx) = false;
    std::deque<std::string> m_waiting PLAT_GUARDED_BY(m_mx); // lines to be printed above the prompt
    std::size_t m_cLost PLAT_GUARDED_BY(m_mx) = 0;           // of them, as there were too many
};

CPlatLineEditorImpl::~CPlatLineEditorImpl()
{
    if (m_pEdit != nullptr) {
        if (!PlatInForeground()) {
            ::el_set(m_pEdit, EL_EDITMODE, 0); // leave the terminal to whose it is
        }
        ::el_end(m_pEdit);
    }
    if (m_pHistory != nullptr) {
        ::history_end(m_pHistory);
    }
    for (int const fd : m_aWake) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

CPlatLineEditorImpl *CPlatLineEditorImpl::Of(EditLine *pEdit)
{
    void *p = nullptr;
    ::el_get(pEdit, EL_CLIENTDATA, &p);
    return static_cast<CPlatLineEditorImpl *>(p);
}

char *CPlatLineEditorImpl::Prompt(EditLine *pEdit)
{
    return Of(pEdit)->m_strPrompt.data();
}

bool CPlatLineEditorImpl::Open(std::string const &strPrompt, CPlatLineEditor::CompleteFn complete)
{
    char const *const pszTerm = std::getenv("TERM");
    if (!PlatIsTerminal() || pszTerm == nullptr || std::strcmp(pszTerm, "dumb") == 0) {
        return false;
    }
    std::setlocale(LC_CTYPE, "");
    if (MB_CUR_MAX == 1) {
        std::setlocale(LC_CTYPE, "C.UTF-8");
    }
    m_strPrompt = strPrompt;
    m_complete = std::move(complete);
    m_fOpen = ::pipe2(m_aWake, O_CLOEXEC | O_NONBLOCK) == 0;
    return m_fOpen;
}

// In the foreground, so that the terminal is found as it is to be left.
bool CPlatLineEditorImpl::StartEditing()
{
    if (m_pEdit != nullptr) {
        return true;
    }
    m_pHistory = ::history_init();
    m_pEdit = m_pHistory ? ::el_init("", stdin, stdout, stderr) : nullptr;
    if (m_pEdit == nullptr) {
        return false;
    }
    HistEvent event;
    ::history(m_pHistory, &event, H_SETSIZE, kHistorySize);
    ::history(m_pHistory, &event, H_SETUNIQUE, 1);
    ::el_set(m_pEdit, EL_CLIENTDATA, this);
    ::el_set(m_pEdit, EL_PROMPT, &CPlatLineEditorImpl::Prompt);
    ::el_set(m_pEdit, EL_EDITOR, "emacs");
    ::el_set(m_pEdit, EL_SIGNAL, 0);
    ::el_set(m_pEdit, EL_GETCFN, &CPlatLineEditorImpl::GetChar);
    ::el_set(m_pEdit, EL_HIST, ::history, m_pHistory);
    ::el_set(m_pEdit, EL_ADDFN, "complete", "completes the line",
             &CPlatLineEditorImpl::CompleteKey);
    ::el_set(m_pEdit, EL_BIND, "^I", "complete", nullptr);
    ::el_set(m_pEdit, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    return true;
}

void CPlatLineEditorImpl::Wake()
{
    unsigned char const by = 0;
    static_cast<void>(!::write(m_aWake[1], &by, 1)); // a full pipe wakes as well
}

void CPlatLineEditorImpl::Print(std::string const &strLine)
{
    CPlatGuard const lock(m_mx);
    if (!m_fEditing) {
        TerminalWrite(strLine + "\n");
        return;
    }
    if (m_waiting.size() == kMaxWaiting) { // a terminal that is halted must not halt who prints
        m_waiting.pop_front();
        ++m_cLost;
    }
    m_waiting.push_back(strLine);
    Wake();
}

// All lines that wait, as one text.
std::string CPlatLineEditorImpl::TakeWaiting()
{
    std::string str;
    if (m_cLost > 0) {
        str = "(" + std::to_string(m_cLost) + " lines were not shown)\n";
    }
    for (std::string const &strLine : m_waiting) {
        str += strLine + "\n";
    }
    m_waiting.clear();
    m_cLost = 0;
    return str;
}

void CPlatLineEditorImpl::Close()
{
    CPlatGuard const lock(m_mx);
    m_fEnd = true;
    Wake();
}

// ---- A line

bool CPlatLineEditorImpl::Read(std::string *pstrLine)
{
    CTerminalSignals const signals(m_aWake[1]);
    if (!WaitForForeground() || !StartEditing() || !BeginLine()) {
        return false;
    }
    int c = 0;
    char const *const psz = ::el_gets(m_pEdit, &c);
    if (psz == nullptr || c <= 0) {
        TerminalWrite(IsAtEnd() ? "" : "\n"); // behind the key that ended it
        EndLine();
        return false;
    }
    EndLine();
    pstrLine->assign(psz, static_cast<std::size_t>(c));
    while (!pstrLine->empty() && (pstrLine->back() == '\n' || pstrLine->back() == '\r')) {
        pstrLine->pop_back();
    }
    if (!pstrLine->empty()) {
        HistEvent event;
        ::history(m_pHistory, &event, H_ENTER, pstrLine->c_str());
    }
    return true;
}

// False when the end comes first. Other threads print directly meanwhile.
bool CPlatLineEditorImpl::WaitForForeground()
{
    for (;;) {
        TakeWakes();
        if (IsAtEnd()) {
            return false;
        }
        if (PlatInForeground()) {
            return true;
        }
        pollfd entry{m_aWake[0], POLLIN, 0};
        ::poll(&entry, 1, kBackgroundLookMs);
    }
}

bool CPlatLineEditorImpl::BeginLine()
{
    CPlatGuard const lock(m_mx);
    m_fEditing = !m_fEnd;
    m_fAway = false;
    return m_fEditing;
}

void CPlatLineEditorImpl::EndLine()
{
    CPlatGuard const lock(m_mx);
    m_fEditing = false;
    TerminalWrite(TakeWaiting());
}

// Takes the edited line off the screen; the cursor is where the prompt began.
void CPlatLineEditorImpl::LeaveLine()
{
    LineInfo const *const pLine = ::el_line(m_pEdit);
    auto const cbBefore = static_cast<std::size_t>(pLine->cursor - pLine->buffer);
    unsigned const nWidth = TerminalWidthOf(m_strPrompt.data(), m_strPrompt.size()) +
                            TerminalWidthOf(pLine->buffer, cbBefore);
    std::string str = "\r";
    if (unsigned const cRows = nWidth / TerminalColumns(); cRows > 0) {
        str += "\x1b[" + std::to_string(cRows) + "A";
    }
    TerminalWrite(str + "\x1b[J");
}

void CPlatLineEditorImpl::PrintWaiting()
{
    std::string str;
    {
        CPlatGuard const lock(m_mx);
        str = TakeWaiting();
    }
    if (str.empty() || m_fAway) {
        TerminalWrite(str);
        return;
    }
    LeaveLine();
    TerminalWrite(str);
    ShowLine();
}

// ---- Waiting for a key

int CPlatLineEditorImpl::GetChar(EditLine *pEdit, wchar_t *pch)
{
    return Of(pEdit)->WaitForChar(pch);
}

// 1 with a character, 0 for the end.
int CPlatLineEditorImpl::WaitForChar(wchar_t *pch)
{
    std::mbstate_t state{};
    for (;;) {
        PrintWaiting();
        if (IsAtEnd()) {
            GiveUpLine();
            return 0;
        }
        ComeBack();
        pollfd aEntries[] = {{m_aWake[0], POLLIN, 0}, {m_fAway ? -1 : STDIN_FILENO, POLLIN, 0}};
        ::poll(aEntries, std::size(aEntries), m_fAway ? kBackgroundLookMs : -1);
        TakeWakes();
        char ch = 0;
        if (m_fAway || aEntries[1].revents == 0) {
            continue;
        }
        if (!ReadByte(&ch)) {
            if (m_fAway) {
                continue;
            }
            return 0;
        }
        std::size_t const n = std::mbrtowc(pch, &ch, 1, &state);
        if (n <= 1) {
            return 1;
        }
        if (n == static_cast<std::size_t>(-1)) { // no character: passed over
            state = {};
        }
    }
}

bool CPlatLineEditorImpl::IsAtEnd()
{
    CPlatGuard const lock(m_mx);
    return m_fEnd;
}

void CPlatLineEditorImpl::GiveUpLine()
{
    if (m_fAway) {
        ::el_set(m_pEdit, EL_EDITMODE, 0); // leave the terminal to whose it is
    } else {
        LeaveLine();
    }
}

// After a stop: shows the line again once the terminal is ours.
void CPlatLineEditorImpl::ComeBack()
{
    if (!m_fAway || !PlatInForeground()) {
        return;
    }
    m_fAway = false;
    ::el_set(m_pEdit, EL_PREP_TERM, 0); // for it believes that nothing has changed
    ::el_set(m_pEdit, EL_PREP_TERM, 1);
    ShowLine();
}

// False at the end of the input; or the terminal is another's at this moment, see m_fAway.
bool CPlatLineEditorImpl::ReadByte(char *pch)
{
    ssize_t n;
    do {
        n = ::read(STDIN_FILENO, pch, 1);
    } while (n < 0 && errno == EINTR);
    m_fAway = n < 0 && !PlatInForeground();
    return n == 1;
}

void CPlatLineEditorImpl::TakeWakes()
{
    unsigned char aby[64];
    for (ssize_t n; (n = ::read(m_aWake[0], aby, sizeof aby)) > 0;) {
        for (ssize_t i = 0; i < n; ++i) {
            OnWake(aby[i]);
        }
    }
}

void CPlatLineEditorImpl::OnWake(int nSignal)
{
    bool fEditing;
    {
        CPlatGuard const lock(m_mx);
        fEditing = m_fEditing;
    }
    if (nSignal == SIGTSTP) {
        if (fEditing) {
            LeaveLine();
            ::el_set(m_pEdit, EL_PREP_TERM, 0);
        }
        ::kill(::getpid(), SIGSTOP);
        m_fAway = fEditing; // on: whether the terminal is ours again will be seen
    } else if (nSignal == SIGCONT) {
        m_fAway = fEditing;
    } else if (nSignal == SIGWINCH) {
        ::el_resize(m_pEdit);
    }
}

// ---- Completion

unsigned char CPlatLineEditorImpl::CompleteKey(EditLine *pEdit, int)
{
    return Of(pEdit)->Complete();
}

unsigned char CPlatLineEditorImpl::Complete()
{
    LineInfo const *const pLine = ::el_line(m_pEdit);
    std::string const strBefore(pLine->buffer, pLine->cursor);
    std::vector<std::string> const texts = m_complete(strBefore);
    if (texts.empty()) {
        return CC_ERROR;
    }
    std::string const strCommon = CommonStart(texts);
    if (strCommon.size() > strBefore.size()) {
        return ::el_insertstr(m_pEdit, strCommon.c_str() + strBefore.size()) == 0 ? CC_REFRESH
                                                                                  : CC_ERROR;
    }
    if (texts.size() > 1) {
        std::size_t const nWord = strBefore.rfind(' ') + 1; // npos + 1 is 0
        std::string str;
        for (std::string const &strText : texts) {
            str += strText.substr(nWord) + "  ";
        }
        LeaveLine();
        TerminalWrite(str + "\n");
        ShowLine();
    }
    return CC_NORM;
}

// ---- The public face

CPlatLineEditor::CPlatLineEditor() : m_pImpl(std::make_unique<CPlatLineEditorImpl>()) {}

CPlatLineEditor::~CPlatLineEditor() = default;

bool CPlatLineEditor::Open(std::string const &strPrompt, CompleteFn complete)
{
    return m_pImpl->Open(strPrompt, std::move(complete));
}

bool CPlatLineEditor::Read(std::string *pstrLine)
{
    return m_pImpl->IsOpen() && m_pImpl->Read(pstrLine);
}

void CPlatLineEditor::Print(std::string const &strLine)
{
    m_pImpl->Print(strLine);
}

void CPlatLineEditor::Close()
{
    m_pImpl->Close();
}
