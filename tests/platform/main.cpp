#include "tests/platform/role.h"

#include <cstring>
#include <map>

namespace {

auto &Roles()
{
    static std::map<std::string, int (*)(std::string const &)> s_roles;
    return s_roles;
}

} // namespace

CTestRole::CTestRole(char const *pszName, int (*pfnRun)(std::string const &))
{
    Roles()[pszName] = pfnRun;
}

std::string OwnProgram()
{
    char szProgram[MAX_PATH * 4] = "";
    EXPECT_NE(GetModuleFileNameA(nullptr, szProgram, sizeof szProgram), 0u);
    return szProgram;
}

CRoleProcess::CRoleProcess(char const *pszRole, std::string const &strArgument)
    : CRoleProcess({OwnProgram(), "--role", pszRole, strArgument})
{
}

CRoleProcess::CRoleProcess(std::vector<std::string> const &arguments)
{
    std::vector<char const *> apsz;
    for (std::string const &str : arguments) {
        apsz.push_back(str.c_str());
    }
    EXPECT_TRUE(m_command.StartProgram(apsz.data(), apsz.size(), nullptr, 0))
        << arguments[0] << ": " << GetLastError();
}

CRoleProcess::~CRoleProcess()
{
    if (!HasEnded()) {
        m_command.End(0);
    }
}

void CRoleProcess::End(DWORD dwMilliseconds)
{
    EXPECT_FALSE(HasEnded());
    m_command.End(dwMilliseconds);
    ExitCode();
}

bool CRoleProcess::HasEnded(DWORD dwMilliseconds)
{
    m_fEnded = m_fEnded || m_command.Wait(dwMilliseconds, &m_dwExitCode);
    return m_fEnded;
}

DWORD CRoleProcess::ExitCode()
{
    EXPECT_TRUE(HasEnded(kdwLimit));
    return m_dwExitCode;
}

int main(int argc, char **argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--role") == 0) {
        return Roles().at(argv[2])(argv[3]);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
