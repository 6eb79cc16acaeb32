#pragma once

// What stands behind one CSoftDevice: its sockets, the clients' links and what they ask for, datagrams, and the
// print path. What a person does at the device, and what comes out of that, is in soft_device.cpp.

#include "device/device_link.h"
#include "device/discovery_job.h"
#include "device/print_path.h"
#include "device/soft_device.h"
#include "platform/lock.h"

#include <chrono>
#include <condition_variable>

// The device's inside; the public face takes its lock.
class CSoftDeviceImpl final : public CDeviceLoop::CClient {
public:
    using Fields = std::vector<DeviceEventField>;

    explicit CSoftDeviceImpl(SoftDeviceConfig config);
    ~CSoftDeviceImpl() { Stop(); }

    bool Start(std::string *pstrError, WORD wPort);
    void Stop();
    WORD Port() const { return m_wPort; }

    void OnReady(DWORD dwSocket, bool fRead, bool fWrite) override;
    LinkTime OnTime(LinkTime now) override;

    void Wake() PLAT_REQUIRES(m_mx); // there is something to send
    void Report(DeviceEventKind eKind, Fields fields = {}) PLAT_REQUIRES(m_mx);
    // So from now on.
    void HabitChanged(char const *pszName, std::uint64_t qwValue) PLAT_REQUIRES(m_mx);
    Fields OfPress(Fields fields) const PLAT_REQUIRES(m_mx);
    CDeviceLink *FindLink(ClientId id) PLAT_REQUIRES(m_mx);
    void DropLink(CDeviceLink &link, std::string const &strReason) PLAT_REQUIRES(m_mx);
    // To so many clients; fields, if any, say what it comes from.
    std::size_t Publish(ObjectChange const &change, Fields const &fields = {}) PLAT_REQUIRES(m_mx);
    void Kick(LinkAddress const &to, std::string const &strText, DWORD dwPick = 0)
        PLAT_REQUIRES(m_mx);
    void SendDatagram(LinkAddress const &to, std::string const &strDatagram) PLAT_REQUIRES(m_mx);
    void ReportFrame(CDeviceLink const &link, LinkFrame const &frame, bool fFromClient,
                     DeviceFrameFate eFate = eFF_SENT) PLAT_REQUIRES(m_mx);

    SoftDeviceConfig const m_config;
    CPlatMutex
        m_mx; // everything below the device included; before the lock of the loop, after none
    std::condition_variable m_cvPanel; // also: links and kicks that have come to their end
    CDeviceModel m_model PLAT_GUARDED_BY(m_mx);
    CKickSender m_kicks PLAT_GUARDED_BY(m_mx);
    std::vector<std::unique_ptr<CDeviceLink>> m_links PLAT_GUARDED_BY(m_mx);
    bool m_fEnding PLAT_GUARDED_BY(m_mx) = false;
    std::chrono::milliseconds m_late PLAT_GUARDED_BY(m_mx){0};
    bool m_fMute PLAT_GUARDED_BY(m_mx) = false;
    unsigned m_cGarble PLAT_GUARDED_BY(m_mx) = 0;
    DWORD m_dwPicks PLAT_GUARDED_BY(m_mx) = 0;
    DWORD m_dwPresses PLAT_GUARDED_BY(m_mx) = 0;
    bool m_fPressTold PLAT_GUARDED_BY(m_mx) = false; // of the last press, a client at least
    LinkTime m_turnAwayUntil PLAT_GUARDED_BY(m_mx) = LinkTime::min();

private:
    bool StartPrintPath(std::string *pstrError);
    bool Listen(std::string *pstrError);
    bool OpenDatagrams(std::string *pstrError);
    bool Watch(std::string *pstrError);

    void Accept() PLAT_REQUIRES(m_mx);
    bool Admit(SOCKET s) PLAT_REQUIRES(m_mx);
    void DropOldestSilent() PLAT_REQUIRES(m_mx);
    void CloseLink(CDeviceLink &link) PLAT_REQUIRES(m_mx);
    LinkTime ServeLinks(LinkTime now) PLAT_REQUIRES(m_mx);
    void ReadLink(CDeviceLink &link) PLAT_REQUIRES(m_mx);
    void OnFrame(CDeviceLink &link, LinkFrame const &frame) PLAT_REQUIRES(m_mx);
    void ReportDatagram(LinkAddress const &peer, std::string const &strBytes, bool fFromClient)
        PLAT_REQUIRES(m_mx);

    void Hello(CDeviceLink &link, LinkFrame const &frame) PLAT_REQUIRES(m_mx);
    DWORD CheckHello(CDeviceLink &link, CLinkReader &reader, BYTE *pUse, std::string *pstrWanted);
    void LinkUp(CDeviceLink &link) PLAT_REQUIRES(m_mx);
    std::string GiveAddress(std::string const &strWanted) PLAT_REQUIRES(m_mx);
    CDeviceLink *FindLocal(std::string const &strAddress) PLAT_REQUIRES(m_mx);
    void Request(CDeviceLink &link, LinkFrame const &frame) PLAT_REQUIRES(m_mx);
    DWORD Get(CLinkReader &reader, int nRow, LinkBytes *pRest) PLAT_REQUIRES(m_mx);
    DWORD Set(CDeviceLink &link, CLinkReader &reader, int nRow) PLAT_REQUIRES(m_mx);
    DWORD Trap(CDeviceLink &link, CLinkReader &reader, int nRow) PLAT_REQUIRES(m_mx);
    DWORD UnTrap(CDeviceLink &link, CLinkReader &reader, int nRow) PLAT_REQUIRES(m_mx);
    void LogSet(CDeviceLink const &link, int nRow, LinkBytes const &value, DWORD dwResult)
        PLAT_REQUIRES(m_mx);
    void Answer(CDeviceLink &link, LinkFrame const &request, DWORD dwResult, LinkBytes rest = {})
        PLAT_REQUIRES(m_mx);

    bool SendTrap(CDeviceLink &link, int nRow, LinkBytes const &value, Fields const &fields = {})
        PLAT_REQUIRES(m_mx);
    void ReceiveEcho() PLAT_REQUIRES(m_mx);
    void OnFind(DiscoveryFind const &find);
    void AnswerJob(DiscoveryJob const &job) PLAT_REQUIRES(m_mx);

    // As Start and Stop leave them, which nothing runs beside.
    CSocketLibrary m_library;
    std::string const m_strId;
    DWORD m_dwListen = 0;
    WORD m_wPort = 0;
    CLinkSocket m_listener;
    CLinkSocket m_datagrams;
    std::unique_ptr<CPrintPath> m_pPrintPath;
    std::shared_ptr<CDeviceLoop> m_pLoop;
    CDeviceLoop::Place m_place = 0;

    ClientId m_lastLink PLAT_GUARDED_BY(m_mx) = 0;
    unsigned m_nLastAddress PLAT_GUARDED_BY(m_mx) = 0;
    LinkTime m_acceptAgain PLAT_GUARDED_BY(m_mx) = LinkTime::max(); // after a shortage
};
