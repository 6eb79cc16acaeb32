#include "session/session.h"

#include "session/listener.h"
#include "session/session_impl.h"
#include "session/supervisor.h"

CSession::CSession(CSupervisor &supervisor, SessionOptions options,
                   std::shared_ptr<CEventQueue> pEvents)
    : m_pImpl(CSessionImpl::Create(supervisor, std::move(options), std::move(pEvents)))
{
    supervisor.Add(m_pImpl);
}

CSession::~CSession()
{
    End(SessionTime::min());
}

void CSession::End(SessionTime tpTakeBack)
{
    m_pImpl->End(tpTakeBack);
}

bool CSession::WaitForEnd(SessionTime tpEnd)
{
    return m_pImpl->WaitForEnd(tpEnd);
}

DWORD CSession::Discover(std::string const &strTarget, DWORD *pdwSequence)
{
    return m_pImpl->Agent().InitiateSrvQDiscovery(pdwSequence, strTarget.c_str());
}

std::string CSession::AdvertisedAddress()
{
    return ::AdvertisedAddress(m_pImpl->Agent());
}

SessionHealth CSession::Health() const
{
    return m_pImpl->Health();
}
