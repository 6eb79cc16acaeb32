// Where there is no library for pages.
#include "tools/mfpsim_web.h"

class CSimWebImpl {};

CSimWeb::CSimWeb(std::size_t) {}
CSimWeb::~CSimWeb() = default;
void CSimWeb::Event(std::size_t, DeviceEvent const &) {}
void CSimWeb::Frame(std::size_t, DeviceFrame const &) {}

bool CSimWeb::Start(CSimulation &, std::string const &, std::string *pstrError)
{
    *pstrError = "--web is not built into this program for this system";
    return false;
}

void CSimWeb::Stop() {}

std::string CSimWeb::Url() const
{
    return {};
}
