#pragma once
/// @file
/// The device's end of a print path: takes discovery jobs out of a FIFO or a plain file.
///
/// A FIFO is read as bytes come. A plain file is looked at several times a second; when it holds
/// something it is read and emptied, so that the next job, which is written at its beginning, is seen
/// as a new one. Something that breaks off is given a second to go on, then refused as cut off.
///
/// Reading keeps a well-behaved writer out for the moment that it takes, as a busy printer port does.
#include "device/discovery_job.h"
#include "platform/lock.h"

#include <condition_variable>
#include <functional>
#include <string>
#include <thread>

/// The reader of one print path, with its thread.
class CPrintPath {
public:
    using FindFn = std::function<void(DiscoveryFind const &)>; ///< on the print path's thread
    using LogFn = std::function<void(std::string const &)>;    ///< on that thread too

    /// @{
    /// Touches nothing yet. The functions are called from Start to Stop.
    CPrintPath(std::string strPath, FindFn onFind, LogFn log);
    ~CPrintPath() { Stop(); }
    /// @}

    /// Starts watching. A plain file that does not exist is made. False with the reason when the path
    /// cannot be used; a file that holds anything but jobs is left alone for that reason.
    bool Start(std::string *pstrError);

    /// Ends within a fraction of a second. Not from the functions above.
    void Stop();

private:
    bool CheckFile(std::string *pstrError);
    void WatchFifo();
    void WatchFile();
    bool LookAtFile(); // false when watching has come to its end
    bool EmptyFile();
    void Deliver(std::vector<DiscoveryFind> const &finds);
    bool Pause(); // false when Stop was called
    bool IsEnding();

    std::string const m_strPath;
    FindFn const m_onFind;
    LogFn const m_log;
    std::thread m_thread;

    CPlatMutex m_mx; // a leaf
    std::condition_variable m_cv;
    bool m_fEnding PLAT_GUARDED_BY(m_mx) = false;

    // The watching thread's.
    unsigned long long m_cbSeen = 0; // of a file that breaks off, when it was last looked at
    int m_cStill = 0;                // times since then that it has not grown
    bool m_fGone = false;
};
