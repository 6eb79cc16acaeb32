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

CRoleProcess::CRoleProcess(char const *pszRole, std::string const &strArgument)
{
    char szProgram[MAX_PATH * 4] = "";
    GetModuleFileNameA(nullptr, szProgram, sizeof szProgram);
    std::string strLine =
        std::string("\"") + szProgram + "\" --role " + pszRole + " \"" + strArgument + "\"";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    EXPECT_TRUE(CreateProcessA(nullptr, strLine.data(), nullptr, nullptr, FALSE, 0, nullptr,
                               nullptr, &startup, &m_info));
}

CRoleProcess::~CRoleProcess()
{
    TerminateProcess(m_info.hProcess, 1);
    CloseHandle(m_info.hThread);
    CloseHandle(m_info.hProcess);
}

void CRoleProcess::Kill()
{
    EXPECT_TRUE(TerminateProcess(m_info.hProcess, 1));
    ExitCode();
}

DWORD CRoleProcess::ExitCode()
{
    DWORD dwCode = STILL_ACTIVE;
    EXPECT_EQ(WaitForSingleObject(m_info.hProcess, kdwLimit), DWORD{WAIT_OBJECT_0});
    GetExitCodeProcess(m_info.hProcess, &dwCode);
    return dwCode;
}

int main(int argc, char **argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--role") == 0)
        return Roles().at(argv[2])(argv[3]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
