#pragma once
/// @file
/// The settings for diagnostics as they stand in the registry: for a person to read, nothing is applied.
#include "platform/base.h"

#include <cstdint>
#include <string>
#include <vector>

/// The path of the settings file in use; empty when there is none (Windows: the system's registry).
std::string SettingsFile();

/// Why the settings file is refused, with its line; empty when it is not.
std::string SettingsProblem();

enum SettingSource {
    eSS_DEFAULT,  ///< nothing is set
    eSS_REGISTRY, ///< the registry has it
    eSS_TOO_LONG, ///< the registry has more bytes than the reader takes: the default holds
};

struct Setting {
    std::string strKey; ///< below SOFTWARE\Norvale
    std::string strName;
    std::string strText;        ///< of a text
    std::uint64_t qwNumber = 0; ///< of a number
    bool bText = false;
    SettingSource eSource = eSS_DEFAULT;
};

/// One line, without a line end: key, name, value, where it comes from.
std::string SettingLine(Setting const &setting);

/// The modules that the registry has settings for.
std::vector<std::string> ConfiguredModules();

/// All settings that a process with this module reads; rows of names only where the registry has them.
std::vector<Setting> SettingsOf(std::string const &strModule);

/// The setting of that key and name, which must be there.
Setting const &FindSetting(std::vector<Setting> const &settings, std::string const &strKey,
                           std::string const &strName);

/// The key of a module below SOFTWARE\Norvale.
std::string ModuleKey(std::string const &strModule);
