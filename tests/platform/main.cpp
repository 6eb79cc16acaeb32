#include "tests/platform/role.h"

#include "platform/file.h"

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

PROCESS_INFORMATION StartProgram(std::string strLine, HANDLE hOut, DWORD dwFlags)
{
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = hOut != nullptr ? STARTF_USESTDHANDLES : 0;
    startup.hStdOutput = hOut;
    EXPECT_TRUE(!hOut || SetHandleInformation(hOut, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT));
    PROCESS_INFORMATION info{};
    EXPECT_TRUE(CreateProcessA(nullptr, strLine.data(), nullptr, nullptr, hOut != nullptr, dwFlags,
                               nullptr, nullptr, &startup, &info))
        << strLine << ": " << GetLastError();
    EXPECT_TRUE(!hOut || CloseHandle(hOut));
    return info;
}

CRoleProcess::CRoleProcess(char const *pszRole, std::string const &strArgument)
    : CRoleProcess(
          StartProgram("\"" + OwnProgram() + "\" --role " + pszRole + " \"" + strArgument + "\""))
{
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
    if (argc == 4 && std::strcmp(argv[1], "--role") == 0) {
        return Roles().at(argv[2])(argv[3]);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
