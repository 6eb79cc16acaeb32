#include "hub/hub.h"

#include "hub/hub_impl.h"

CHub::CHub(HubLogFn log, MakeHubSinkFn makeSink)
    : m_pImpl(std::make_unique<CHubImpl>(std::move(log), std::move(makeSink)))
{
}

CHub::~CHub() = default;

bool CHub::Start(HubSettings const &settings, std::string *pstrError)
{
    return m_pImpl->Start(settings, pstrError);
}

void CHub::Apply(HubSettings const &settings)
{
    m_pImpl->Apply(settings);
}

bool CHub::End()
{
    return m_pImpl->End();
}

HubStatus CHub::Status() const
{
    return m_pImpl->Status();
}

bool CHub::Search(JournalQuery const &query, std::vector<HubEvent> *pEvents, std::string *pstrError)
{
    return m_pImpl->Search(query, pEvents, pstrError);
}

bool CHub::Lives()
{
    return m_pImpl->Lives();
}
