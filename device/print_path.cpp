#include "device/print_path.h"

#include "platform/fifo.h"
#include "platform/file.h"
#include "platform/sync.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <system_error>

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::milliseconds kPause{50};
constexpr int kPausesTillCutOff = 20;
constexpr int kOpenTries = 40; // with a pause between two
constexpr DWORD kReadPiece = 4096;
constexpr char kEscape = 0x1B; // a job begins with it

class CFileHandle {
public:
    CFileHandle(std::string const &strPath, DWORD dwAccess, DWORD dwDisposition)
        : m_h(CreateFileA(strPath.c_str(), dwAccess, FILE_SHARE_READ | FILE_SHARE_WRITE,
                          /*pSecurity=*/nullptr, dwDisposition, FILE_ATTRIBUTE_NORMAL,
                          /*hTemplate=*/nullptr))
    {
    }
    ~CFileHandle()
    {
        if (IsOpen()) {
            CloseHandle(m_h);
        }
    }
    CFileHandle(CFileHandle const &) = delete;
    CFileHandle &operator=(CFileHandle const &) = delete;

    bool IsOpen() const { return m_h != INVALID_HANDLE_VALUE; }

    // The number of bytes, 0 at the end or on failure.
    DWORD Read(char *p, DWORD cb) const
    {
        DWORD cbRead = 0;
        return ReadFile(m_h, p, cb, &cbRead, /*pOverlapped=*/nullptr) ? cbRead : 0;
    }

private:
    HANDLE const m_h;
};

} // namespace

CPrintPath::CPrintPath(std::string strPath, FindFn onFind, LogFn log)
    : m_strPath(std::move(strPath)), m_onFind(std::move(onFind)), m_log(std::move(log))
{
}

bool CPrintPath::Start(std::string *pstrError)
{
    bool const fFifo = PlatIsFifo(m_strPath.c_str());
    if (!fFifo && !CheckFile(pstrError)) {
        return false;
    }
    m_thread = std::thread([this, fFifo] { fFifo ? WatchFifo() : WatchFile(); });
    return true;
}

bool CPrintPath::CheckFile(std::string *pstrError)
{
    std::error_code error;
    if (fs::exists(m_strPath, error) && !fs::is_regular_file(m_strPath, error)) {
        *pstrError = "print path " + m_strPath + " is neither a file nor a FIFO";
        return false;
    }
    std::unique_ptr<CFileHandle> pFile;
    for (int cTries = 0; cTries < kOpenTries; ++cTries) {
        pFile = std::make_unique<CFileHandle>(m_strPath, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
        // A client that writes its job just now keeps everybody else out.
        if (pFile->IsOpen() || GetLastError() != ERROR_SHARING_VIOLATION || !Pause()) {
            break;
        }
    }
    if (!pFile->IsOpen()) {
        *pstrError = "print path " + m_strPath + " cannot be opened for reading and writing";
        return false;
    }
    char ch = kEscape;
    if (pFile->Read(&ch, 1) > 0 && ch != kEscape) {
        *pstrError = "print path " + m_strPath + " holds something other than jobs, is left alone";
        return false;
    }
    return true;
}

void CPrintPath::Stop()
{
    {
        CPlatGuard const lock(m_mx);
        m_fEnding = true;
        m_cv.notify_all();
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool CPrintPath::IsEnding()
{
    CPlatGuard const lock(m_mx);
    return m_fEnding;
}

bool CPrintPath::Pause()
{
    CPlatWaitGuard lock(m_mx);
    return !m_cv.wait_for(lock.Native(), kPause, [&]() PLAT_REQUIRES(m_mx) { return m_fEnding; });
}

void CPrintPath::Deliver(std::vector<DiscoveryFind> const &finds)
{
    for (DiscoveryFind const &find : finds) {
        m_onFind(find);
    }
}

void CPrintPath::WatchFifo()
{
    CPlatFifo fifo;
    if (!fifo.Open(m_strPath.c_str())) {
        m_log("print path cannot be opened, it is not watched");
        return;
    }
    CDiscoveryScanner scanner;
    char piece[kReadPiece];
    for (int cStill = 0; !IsEnding();) {
        int const n = fifo.Read(piece, sizeof piece, static_cast<DWORD>(kPause.count()));
        if (n < 0) {
            m_log("print path cannot be read, it is not watched any more");
            return;
        }
        cStill = n > 0 ? 0 : cStill + 1;
        Deliver(scanner.Feed(piece, static_cast<std::size_t>(n)));
        if (cStill >= kPausesTillCutOff) {
            Deliver(scanner.Flush());
        }
    }
}

void CPrintPath::WatchFile()
{
    while (LookAtFile() && Pause()) {
    }
}

bool CPrintPath::LookAtFile()
{
    std::error_code error;
    auto const cbFile = fs::file_size(m_strPath, error);
    if (static_cast<bool>(error) != m_fGone) {
        m_fGone = !m_fGone;
        m_log(m_fGone ? "print path is gone" : "print path is back");
    }
    if (error || cbFile == 0) {
        return true;
    }

    m_cStill = cbFile == m_cbSeen ? m_cStill + 1 : 0;
    m_cbSeen = cbFile;
    CDiscoveryScanner scanner;
    std::vector<DiscoveryFind> finds;
    bool fGoOn = true;
    {
        // Held while the file is emptied, to keep writers out that would be cut off by that.
        CFileHandle const file(m_strPath, GENERIC_READ, OPEN_EXISTING);
        if (!file.IsOpen()) {
            return true; // a writer has it
        }
        char piece[kReadPiece];
        while (DWORD const cb = file.Read(piece, sizeof piece)) {
            for (DiscoveryFind &find : scanner.Feed(piece, cb)) {
                finds.push_back(std::move(find));
            }
        }
        if (scanner.HasRest() && m_cStill < kPausesTillCutOff) {
            return true; // more may be coming
        }
        fGoOn = EmptyFile();
    }
    for (DiscoveryFind &find : scanner.Flush()) {
        finds.push_back(std::move(find));
    }
    m_cbSeen = 0;
    m_cStill = 0;
    Deliver(finds);
    return fGoOn;
}

bool CPrintPath::EmptyFile()
{
    std::error_code error;
    fs::resize_file(m_strPath, 0, error);
    if (error) {
        m_log("print path cannot be emptied, it is not watched any more");
    }
    return !error;
}
