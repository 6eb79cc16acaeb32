#include "tools/notifymon_doctor_settings.h"

#include "platform/file.h"
#include "platform/registry.h"
#include "platform/window.h"
#include "tools/notifymon_output.h"
#include "tools/notifymon_settings.h"
#include "tools/showable.h"

#include <filesystem>

namespace {

class CSettingsDoctor {
public:
    CSettingsDoctor(Options const &options, CFindings &findings)
        : m_options(options), m_findings(findings)
    {
    }

    void Run()
    {
        if (CheckRegistry()) {
            CheckModule();
        }
    }

private:
    // False when there is nothing to read settings from.
    bool CheckRegistry()
    {
        bool const bChosen = !m_options.strRegistry.empty();
        if (bChosen) {
            PlatSetRegistryFile(m_options.strRegistry.c_str()); // a refusal is asked for below
        }
        std::string const strFile = SettingsFile();
        std::string const strProblem = SettingsProblem();
        std::string const strNamed = "settings: " + Showable(strFile) +
                                     (bChosen ? ", named by --registry" : ", the usual place");
        std::error_code error;
        if (!strProblem.empty()) {
            m_findings.Fail("settings refused: " + Showable(strProblem),
                            "mend what it says; docs/registry-file.md tells the format");
            return false;
        }
        if (strFile.empty()) {
            m_findings.Ok("settings: the system's registry");
            return true;
        }
        if (std::filesystem::exists(strFile, error)) {
            m_findings.Ok(strNamed);
            return true;
        }
        if (bChosen) {
            m_findings.Fail(strNamed + ": there is no such file", "check the name");
            return false;
        }
        m_findings.Ok(strNamed + ": there is no such file, so all settings have their defaults");
        return true;
    }

    void CheckModule()
    {
        std::vector<std::string> const modules = ConfiguredModules();
        if (m_options.strDiagnostics.empty()) {
            m_findings.Ok("diagnostics: off, since there is no --diagnostics NAME");
            for (std::string const &strModule : modules) {
                m_findings.Detail("there are settings for " + Showable(strModule));
            }
            return;
        }
        std::string const strKey = ModuleKey(m_options.strDiagnostics);
        std::vector<Setting> const settings = SettingsOf(m_options.strDiagnostics);
        std::size_t cSet = 0;
        bool bSet = false;
        for (Setting const &setting : settings) {
            cSet += setting.eSource == eSS_REGISTRY ? 1 : 0;
            bSet = bSet || (setting.strKey.starts_with(strKey) && setting.eSource == eSS_REGISTRY);
        }
        if (bSet) {
            m_findings.Ok("diagnostics: settings of " + Showable(m_options.strDiagnostics) + ": " +
                          std::to_string(cSet) + " set, " + std::to_string(settings.size() - cSet) +
                          " by default" + (m_options.bVerbose ? "" : " (--verbose lists them)"));
        } else {
            m_findings.Warn("diagnostics: nothing is set for " + Showable(m_options.strDiagnostics),
                            "copy docs/example.reg and give the module's key this name");
        }
        for (Setting const &setting : settings) {
            if (m_options.bVerbose || setting.eSource == eSS_TOO_LONG) {
                m_findings.Detail(SettingLine(setting));
            }
        }
        CheckLog(settings, strKey + "\\File");
        if (FindSetting(settings, "TraceDeck", "DebugFile").qwNumber != 0) {
            std::string const strFile = FindSetting(settings, "TraceDeck", "DebugFilePath").strText;
            CheckWritable("viewer: off; its lines go to " + Showable(strFile) + ", which", strFile,
                          "");
        } else {
            CheckViewer(settings, strKey + "\\TD");
        }
    }

    void CheckLog(std::vector<Setting> const &settings, std::string const &strKey)
    {
        std::string const strName = FindSetting(settings, strKey, "File Name").strText;
        if (FindSetting(settings, strKey, "State").qwNumber != 1 || strName.empty()) {
            m_findings.Warn("log: off", "set \"State\" to 1 and \"File Name\" in " + strKey);
            return;
        }
        bool const bAppends = FindSetting(settings, strKey, "Append").qwNumber != 0;
        CheckWritable("log: " + Showable(strName), strName,
                      bAppends ? "" : "; each start empties it, since \"Append\" is 0");
    }

    // Opens the file as the writers of lines do, but what it holds stays.
    void CheckWritable(std::string const &strWhat, std::string const &strName,
                       std::string const &strMore)
    {
        HANDLE const h =
            CreateFileA(strName.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                        OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        DWORD const dwError = GetLastError();
        if (h == INVALID_HANDLE_VALUE) {
            m_findings.Fail(strWhat + " cannot be written, error " + std::to_string(dwError),
                            "make its folder, see who may write there, or change its name");
            return;
        }
        CloseHandle(h);
        if (dwError != ERROR_ALREADY_EXISTS) {
            std::error_code error;
            std::filesystem::remove(strName, error);
        }
        m_findings.Ok(strWhat + " can be written" + strMore);
    }

    void CheckViewer(std::vector<Setting> const &settings, std::string const &strKey)
    {
        if (FindSetting(settings, strKey, "State").qwNumber != 1) {
            return;
        }
        std::string const strTitle = FindSetting(settings, "TraceDeck", "Title").strText;
        if (FindWindowA(nullptr, strTitle.c_str()) != nullptr) {
            m_findings.Ok("viewer: " + Quoted(strTitle) + " is there");
        } else {
            m_findings.Warn("viewer: no window has the title " + Quoted(strTitle),
                            "start tracedeck with that --title first");
        }
    }

    Options const &m_options;
    CFindings &m_findings;
};

} // namespace

void ExamineSettings(Options const &options, CFindings &findings)
{
    CSettingsDoctor(options, findings).Run();
}
